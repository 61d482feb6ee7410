"use strict";
/// Live curves over simulation time. One cursor goes through all plots: the time under the pointer is the same in each.
var plotPanel;
(function (plotPanel) {
    var el = ui.el;
    const Interval = 16;
    const Colors = ["#3b82f6", "#e8590c", "#2f9e44", "#c2255c", "#7950f2", "#0c8599", "#b08900", "#868e96"];
    /// One plot with its curves.
    class Plot {
        constructor(panel, session) {
            this.panel = panel;
            this.session = session;
            this.root = el("section", { class: "plot", "aria-label": "Plot" });
            this.curves = [];
            this.legend = el("div", { class: "legend" });
            this.canvas = el("div", { class: "canvas", tabindex: "0", role: "img", "aria-label": "Curves; the arrow keys move the time cursor" });
            this.error = el("p", { class: "error", role: "alert" });
            this.freezeButton = ui.button("Freeze", "Stop the picture; values are taken on", () => this.freeze());
            this.data = new model.Curves();
            this.plot = null;
            this.frozen = null;
            /// What is drawn.
            this.picture = [];
            this.elementWatches = [];
            this.nextColor = 0;
            this.clock = "";
            this.draw = () => this.render();
            this.valueWatch = this.subscribe(null);
            this.freezeButton.setAttribute("aria-pressed", "false");
            this.root.append(el("div", { class: "bar" }, this.legend, this.freezeButton, ui.button("Clear", "Forget what came until now", () => {
                this.data.clear();
                ui.drawSoon(this.draw);
            }), ui.button("Close", "Remove this plot", () => this.panel.remove(this))), this.error, this.canvas);
            this.root.addEventListener("focusin", () => this.panel.choose(this));
            this.root.addEventListener("pointerdown", () => this.panel.choose(this));
            this.canvas.addEventListener("keydown", (event) => this.keyDown(event));
            new ResizeObserver(() => this.plot?.setSize({ width: this.canvas.clientWidth, height: this.canvas.clientHeight })).observe(this.canvas);
        }
        add(quantities) {
            for (const quantity of quantities) {
                if (this.curves.some((curve) => curve.quantity.label === quantity.label))
                    continue;
                const valueText = el("span", { class: "number" });
                const curve = { quantity, color: Colors[this.nextColor++ % Colors.length], valueText, last: null };
                const swatch = el("span", { class: "swatch" });
                swatch.style.background = curve.color;
                const chip = el("span", { class: "chip", title: quantity.label }, swatch, el("span", { class: "label" }, quantity.label), valueText);
                chip.append(ui.button("×", "Remove " + quantity.label, () => {
                    chip.remove();
                    this.removeCurve(curve);
                }));
                this.legend.append(chip);
                this.curves.push(curve);
                this.data.addColumn();
            }
            this.frozen = null;
            this.watch();
            this.build();
        }
        close() {
            this.valueWatch.close();
            this.elementWatches.forEach((watch) => watch.close());
            this.plot?.destroy();
            this.root.remove();
        }
        build() {
            this.plot?.destroy();
            const color = (variable) => () => ui.color(variable);
            const axis = {
                stroke: color("--text"), grid: { stroke: color("--line"), width: 1 }, ticks: { stroke: color("--line"), width: 1 },
                font: "11px system-ui, sans-serif",
            };
            const paths = uPlot.paths.stepped({ align: 1 });
            this.plot = new uPlot({
                width: Math.max(100, this.canvas.clientWidth), height: this.canvas.clientHeight, padding: [6, 14, 0, 0], legend: { show: false }, scales: { x: { time: false } },
                axes: [{ ...axis, size: 28 }, { ...axis, size: 64, values: (_, splits) => splits.map((value) => ui.number(value, 5)) }],
                series: [{}, ...this.curves.map(({ color: stroke }) => ({ stroke, width: 1.5, points: { show: false }, paths, pxAlign: 0 }))],
                cursor: { y: false, drag: { x: false, y: false }, points: { size: 6 } },
                hooks: { setCursor: [() => this.point()] },
            }, this.view(), this.canvas);
            ui.drawSoon(this.draw);
        }
        /// Values where the cursor stands, or the last ones.
        showValues() {
            const index = this.plot?.cursor.idx;
            const isPointed = index !== null && index !== undefined && this.cursorLeft >= 0;
            const at = (i) => {
                const column = this.picture[i + 1];
                return column?.[isPointed ? index : column.length - 1];
            };
            this.curves.forEach((curve, i) => {
                const value = at(i);
                ui.setText(curve.valueText, value === null || value === undefined ? "–" : ui.number(value, 6));
            });
        }
        /// The simulation has come to this time; what has not changed is as it was.
        reach(clock) {
            const last = this.data.times[this.data.times.length - 1];
            if (clock.path === this.clock && last !== undefined && clock.time > last)
                this.push(clock.time);
        }
        /// Puts the cursor to where another plot has it; NaN for nowhere.
        follow(time) {
            const left = this.plot?.valToPos(time, "x") ?? NaN;
            const isInSight = left >= 0 && left <= (this.plot?.over.clientWidth ?? 0);
            this.plot?.setCursor({ left: isInSight ? left : -10, top: isInSight ? 0 : -10 }, false);
            this.showValues();
        }
        redraw() {
            this.plot?.redraw(false);
            ui.drawSoon(this.draw);
        }
        get isEmpty() {
            return this.curves.length === 0;
        }
        removeCurve(curve) {
            const index = this.curves.indexOf(curve);
            this.curves.splice(index, 1);
            this.data.removeColumn(index);
            this.frozen = null;
            this.watch();
            if (this.isEmpty)
                this.panel.remove(this);
            else
                this.build();
        }
        /// All values by one watch; each element of a buffer by one of its own, since a watch has one range.
        watch() {
            const values = new Set(this.curves.filter(({ quantity }) => quantity.index === null).map(({ quantity }) => quantity.path));
            this.valueWatch.set(values.size === 0 ? null : { paths: [...values], interval: Interval });
            this.elementWatches.splice(0).forEach((watch) => watch.close());
            const elements = new Map(this.curves.filter(({ quantity }) => quantity.index !== null)
                .map(({ quantity }) => [quantity.path + "#" + quantity.index, quantity]));
            for (const { path, index } of elements.values()) {
                const watch = this.subscribe(index);
                this.elementWatches.push(watch);
                watch.set({ paths: [path], begin: index, count: 1, interval: Interval });
            }
        }
        subscribe(index) {
            return this.session.subscribe((update) => this.take(update, index), (text) => ui.setText(this.error, text));
        }
        take(update, index) {
            for (const item of update.items) {
                const numbers = model.numbersOf(item.value);
                for (const curve of this.curves)
                    if (curve.quantity.path === item.path && curve.quantity.index === index)
                        curve.last = item.removed ? null : item.elements === null ? numbers[curve.quantity.component] ?? null :
                            item.elements.count > 0 && item.elements.components > curve.quantity.component ?
                                item.elements.numberAt(0, curve.quantity.component) : null;
            }
            this.clock = update.clock;
            this.push(update.time !== null && Number.isFinite(update.time) ? update.time : performance.now() / 1000);
        }
        push(time) {
            this.data.push(time, this.curves.map(({ last }) => last));
            if (this.frozen === null)
                ui.drawSoon(this.draw);
        }
        freeze() {
            this.frozen = this.frozen === null ? [[...this.data.times], ...this.data.columns.map((column) => [...column])] : null;
            ui.drawSoon(this.draw);
        }
        view() {
            if (this.frozen !== null)
                return this.frozen;
            const begin = Math.max(0, this.data.times.length - this.panel.shownPoints);
            return [this.data.times.slice(begin), ...this.data.columns.map((column) => column.slice(begin))];
        }
        render() {
            this.freezeButton.setAttribute("aria-pressed", String(this.frozen !== null));
            ui.setText(this.freezeButton, this.frozen === null ? "Freeze" : "Go on");
            this.picture = this.view();
            this.plot?.setData(this.picture);
            // The curves have moved on below the pointer.
            if (this.panel.source === this)
                this.point();
            else
                this.follow(this.panel.time);
        }
        get cursorLeft() {
            return this.plot?.cursor.left ?? -1;
        }
        point() {
            const left = this.cursorLeft;
            if (left >= 0)
                this.panel.pointAt(this, this.plot.posToVal(left, "x"));
            else if (this.panel.source === this)
                this.panel.pointAt(null, NaN);
        }
        keyDown(event) {
            const steps = { ArrowLeft: -1, ArrowRight: 1, PageDown: -20, PageUp: 20 };
            const step = steps[event.key];
            if (this.plot === null || (step === undefined && event.key !== "Escape"))
                return;
            const before = this.cursorLeft;
            const width = this.plot.over.clientWidth;
            const left = step === undefined ? -10 : Math.max(0, Math.min(width, (before < 0 ? width : before) + 2 * step));
            this.plot.setCursor({ left, top: left < 0 ? -10 : 0 });
            event.preventDefault();
        }
    }
    class Panel {
        constructor(root, session) {
            this.session = session;
            /// Where the common cursor is moved from, and its time.
            this.source = null;
            this.time = NaN;
            this.plots = [];
            this.chosen = null;
            this.place = el("div", { class: "plots", id: "plots" });
            this.cursor = el("output", { id: "cursor-time" });
            this.shown = el("select", { id: "shown-points", "aria-label": "How much of the curves is shown", title: "How much of the curves is shown" });
            this.target = el("select", { id: "plot-target", "aria-label": "Where the next curve goes" }, el("option", { value: "chosen" }, "same plot"), el("option", { value: "new" }, "new plot"));
            this.hint = el("p", { class: "hint" }, "Nothing is plotted. Choose a value in the tree and press Plot, or double click a number of a buffer.");
            for (const [points, name] of [["500", "500 updates"], ["5000", "5,000"], ["50000", "all"]])
                this.shown.append(el("option", { value: points }, name));
            this.shown.addEventListener("change", () => this.redraw());
            root.append(el("header", {}, el("h2", {}, "Plots"), this.cursor, this.target, this.shown), this.hint, this.place);
            session.plotAsked.add((quantities) => this.add(quantities));
            session.clocksChanged.add(() => {
                for (const clock of session.clocks)
                    this.plots.forEach((plot) => plot.reach(clock));
            });
        }
        get shownPoints() {
            return Number(this.shown.value);
        }
        add(quantities) {
            if (quantities.length === 0)
                return;
            if (this.chosen === null || this.target.value === "new") {
                this.chosen = new Plot(this, this.session);
                this.plots.push(this.chosen);
                this.place.append(this.chosen.root);
            }
            this.chosen.add(quantities);
            this.choose(this.chosen);
            this.hint.hidden = true;
        }
        remove(plot) {
            plot.close();
            this.plots.splice(this.plots.indexOf(plot), 1);
            if (this.chosen === plot)
                this.chosen = this.plots[this.plots.length - 1] ?? null;
            this.hint.hidden = this.plots.length > 0;
            if (this.source === plot)
                this.pointAt(null, NaN);
        }
        choose(plot) {
            this.chosen = plot;
            for (const each of this.plots)
                each.root.classList.toggle("chosen", each === plot && this.plots.length > 1);
        }
        pointAt(source, time) {
            this.source = source;
            this.time = time;
            ui.setText(this.cursor, source === null ? "" : "at " + ui.number(time, 6) + " s");
            for (const plot of this.plots)
                plot === source ? plot.showValues() : plot.follow(time);
        }
        redraw() {
            this.plots.forEach((plot) => plot.redraw());
        }
    }
    plotPanel.Panel = Panel;
})(plotPanel || (plotPanel = {}));

"use strict";
/// Curves over simulation time: live as it comes, of recordings over the whole run. One cursor goes through all plots: the time under the
/// pointer is the same in each.
var plotPanel;
(function (plotPanel) {
    var el = ui.el;
    const Interval = 16;
    const Colors = ["#3b82f6", "#e8590c", "#2f9e44", "#c2255c", "#7950f2", "#0c8599", "#b08900", "#868e96"];
    /// In which a second click makes a double one, in ms.
    const DoubleClick = 250;
    /// Where the last of the times stands that is not above the time; -1 ahead of the first.
    function indexAt(times, time) {
        let [begin, end] = [0, times.length];
        while (begin < end) {
            const middle = (begin + end) >> 1;
            if (times[middle] <= time)
                begin = middle + 1;
            else
                end = middle;
        }
        return begin - 1;
    }
    /// One plot with its curves.
    class Plot {
        constructor(panel, session) {
            this.panel = panel;
            this.session = session;
            this.root = el("section", { class: "plot", "aria-label": "Plot" });
            this.curves = [];
            this.legend = el("div", { class: "legend" });
            this.canvas = el("div", { class: "canvas", tabindex: "0", role: "img" });
            this.error = el("p", { class: "error", role: "alert" });
            this.state = el("span", { class: "hint progress" });
            this.freezeButton = ui.button("Freeze", "Stop the picture; values are taken on", () => this.freeze());
            this.clearButton = ui.button("Clear", "Forget what came until now", () => {
                this.data.clear();
                ui.drawSoon(this.draw);
            });
            this.differenceButton = ui.button("Difference", "The first curve less the second one", () => this.subtract());
            this.wholeButton = ui.button("Whole run", "Show the whole run again (double click)", () => this.zoomTo(null));
            this.difference = el("span", { class: "number" });
            this.differenceChip = el("span", { class: "chip" }, el("span", { class: "swatch difference" }), el("span", { class: "label" }, "difference"), this.difference);
            this.now = el("div", { class: "now" });
            this.data = new model.Curves();
            this.feeds = new Map();
            this.zoom = null;
            this.showsDifference = false;
            this.plot = null;
            this.frozen = null;
            /// What is drawn.
            this.picture = [];
            this.elementWatches = [];
            this.liveError = "";
            this.nextColor = 0;
            this.clock = "";
            this.click = 0;
            this.draw = () => this.render();
            this.valueWatch = this.subscribe(null);
            for (const button of [this.freezeButton, this.differenceButton])
                button.setAttribute("aria-pressed", "false");
            this.root.append(el("div", { class: "bar" }, this.legend, this.state, this.wholeButton, this.differenceButton, this.freezeButton, this.clearButton, ui.button("Close", "Remove this plot", () => this.panel.remove(this))), this.error, this.canvas);
            this.root.addEventListener("focusin", () => this.panel.choose(this));
            this.root.addEventListener("pointerdown", () => this.panel.choose(this));
            this.canvas.addEventListener("keydown", (event) => this.keyDown(event));
            new ResizeObserver(() => {
                this.plot?.setSize({ width: this.canvas.clientWidth, height: this.canvas.clientHeight });
                this.showTime();
            }).observe(this.canvas);
        }
        add(sources) {
            for (const source of sources) {
                const { quantity, track, name } = source;
                const title = (name === "" ? "" : name + ": ") + quantity.label;
                if (this.curves.some((curve) => curve.source.quantity.label === quantity.label && curve.source.track === track))
                    continue;
                const valueText = el("span", { class: "number" });
                const swatch = el("span", { class: "swatch" });
                const chip = el("span", { class: "chip", title }, swatch, ...name === "" ? [] : [el("span", { class: "run" }, name)], el("span", { class: "label" }, quantity.label), valueText);
                const curve = { source, color: Colors[this.nextColor++ % Colors.length], chip, valueText, last: null };
                swatch.style.background = curve.color;
                chip.append(ui.button("×", "Remove " + title, () => this.removeCurve(curve)));
                this.legend.append(chip);
                this.curves.push(curve);
                if (track === null)
                    this.data.addColumn();
            }
            this.changeCurves();
        }
        close() {
            clearTimeout(this.click);
            this.valueWatch.close();
            this.elementWatches.forEach((watch) => watch.close());
            this.feeds.forEach((feed) => feed.close());
            this.plot?.destroy();
            this.plot = null;
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
            const curve = { width: 1.5, points: { show: false }, paths, pxAlign: 0 };
            const isRecorded = this.feeds.size > 0;
            this.root.classList.toggle("recorded", isRecorded);
            this.canvas.setAttribute("aria-label", "Curves; the arrow keys move the time cursor" + (isRecorded ? ", Enter goes to its time, plus and minus zoom" : ""));
            this.picture = this.view();
            this.plot = new uPlot({
                width: Math.max(100, this.canvas.clientWidth), height: this.canvas.clientHeight, padding: [6, 14, 0, 0], legend: { show: false }, scales: { x: { time: false } },
                axes: [{ ...axis, size: 28 }, { ...axis, size: 64, values: (_, splits) => splits.map((value) => ui.number(value, 5)) }],
                series: [{}, ...this.curves.map(({ color: stroke }) => ({ ...curve, stroke })), ...this.showsDifference ? [{ ...curve, stroke: color("--text"), dash: [4, 3] }] : []],
                cursor: { y: false, drag: { x: isRecorded, y: false, setScale: false, dist: 5 }, points: { size: 6 }, bind: { dblclick: () => null } },
                hooks: { setCursor: [() => this.point()], setSelect: [() => this.select()] },
            }, this.picture, this.canvas);
            if (isRecorded)
                this.listen(this.plot.over);
            ui.drawSoon(this.draw);
        }
        /// Values where the cursor stands; without it those of the recording's time, or the last ones.
        showValues() {
            const index = this.plot?.cursor.idx;
            const isPointed = index !== null && index !== undefined && this.cursorLeft >= 0;
            const times = this.picture[0] ?? [];
            const { time } = this.panel.all;
            const place = this.zoom !== null && !(time >= this.zoom.start && time <= this.zoom.end) ? -1 : indexAt(times, time);
            const show = (text, column, isLive, last) => {
                const numbers = this.picture[column + 1] ?? [];
                const value = isPointed ? numbers[index] : !isLive ? numbers[place] : this.feeds.size > 0 ? last : numbers[numbers.length - 1];
                ui.setText(text, value === null || value === undefined ? "–" : ui.number(value, 6));
            };
            this.curves.forEach((curve, i) => show(curve.valueText, i, curve.source.track === null, curve.last));
            if (this.showsDifference)
                show(this.difference, this.curves.length, false, null);
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
        /// The recordings stand at another time.
        showTime() {
            if (this.feeds.size === 0 || this.plot === null)
                return;
            const left = this.plot.valToPos(this.panel.all.time, "x");
            this.now.hidden = !(left >= 0 && left <= this.plot.over.clientWidth);
            this.now.style.transform = "translateX(" + left + "px)";
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
            if (curve.source.track === null)
                this.data.removeColumn(this.live.indexOf(curve));
            curve.chip.remove();
            this.curves.splice(index, 1);
            if (this.isEmpty)
                this.panel.remove(this);
            else
                this.changeCurves();
        }
        changeCurves() {
            this.frozen = null;
            if (this.pair === null)
                this.showsDifference = false;
            this.watch();
            this.feed();
            this.build();
        }
        // Live curves.
        get live() {
            return this.curves.filter(({ source }) => source.track === null);
        }
        /// All values by one watch; each element of a buffer by one of its own, since a watch has one range.
        watch() {
            const quantities = this.live.map(({ source }) => source.quantity);
            const values = new Set(quantities.filter(({ index }) => index === null).map(({ path }) => path));
            this.valueWatch.set(values.size === 0 ? null : { paths: [...values], interval: Interval });
            this.elementWatches.splice(0).forEach((watch) => watch.close());
            const elements = new Map(quantities.filter(({ index }) => index !== null).map((quantity) => [quantity.path + "#" + quantity.index, quantity]));
            for (const { path, index } of elements.values()) {
                const watch = this.subscribe(index);
                this.elementWatches.push(watch);
                watch.set({ paths: [path], begin: index, count: 1, interval: Interval });
            }
        }
        subscribe(index) {
            return this.session.subscribe((update) => this.take(update, index), (text) => {
                this.liveError = text;
                ui.drawSoon(this.draw);
            });
        }
        take(update, index) {
            for (const item of update.items) {
                const numbers = model.numbersOf(item.value);
                for (const curve of this.live) {
                    const { quantity } = curve.source;
                    if (quantity.path === item.path && quantity.index === index)
                        curve.last = item.removed ? null : item.elements === null ? numbers[quantity.component] ?? null :
                            item.elements.count > 0 && item.elements.components > quantity.component ? item.elements.numberAt(0, quantity.component) : null;
                }
            }
            this.clock = update.clock;
            this.push(update.time !== null && Number.isFinite(update.time) ? update.time : performance.now() / 1000);
        }
        push(time) {
            this.data.push(time, this.live.map(({ last }) => last));
            if (this.frozen === null)
                ui.drawSoon(this.draw);
        }
        freeze() {
            this.frozen = this.frozen === null ? { times: [...this.data.times], columns: this.data.columns.map((column) => [...column]) } : null;
            ui.drawSoon(this.draw);
        }
        get livePart() {
            if (this.frozen !== null)
                return this.frozen;
            const begin = Math.max(0, this.data.times.length - this.panel.shownPoints);
            return { times: this.data.times.slice(begin), columns: this.data.columns.map((column) => column.slice(begin)) };
        }
        // Curves of recordings.
        of(track) {
            return this.curves.filter(({ source }) => source.track === track);
        }
        feed() {
            for (const [track, feed] of this.feeds)
                if (this.of(track).length === 0) {
                    feed.close();
                    this.feeds.delete(track);
                }
            for (const { source: { track } } of this.curves)
                if (track !== null && !this.feeds.has(track))
                    this.feeds.set(track, new series.Feed(this.panel.desk, track, () => ui.drawSoon(this.draw)));
            if (this.feeds.size === 0)
                this.zoom = null;
            for (const [track, feed] of this.feeds) {
                const data = new Map(this.of(track).map(({ source: { quantity: { path, index } } }) => [path + "#" + index, { path, index }]));
                feed.set([...data.values()], this.zoom);
            }
        }
        /// Two curves of the same in two recordings; null where there are not just these.
        get pair() {
            const [first, second, third] = this.curves;
            const same = (curve) => curve.source.quantity.label + " " + curve.source.quantity.component;
            return second !== undefined && third === undefined && first.source.track !== null && second.source.track !== null &&
                first.source.track !== second.source.track && same(first) === same(second) ? [first, second] : null;
        }
        subtract() {
            this.showsDifference = !this.showsDifference;
            this.build();
        }
        /// Of all that is drawn.
        get run() {
            const { times } = this.data;
            const spans = [...this.feeds.keys()].map((id) => this.panel.all.get(id)?.run).filter((run) => run !== undefined && run.end > run.start);
            if (spans.length === 0)
                return null;
            if (times.length > 0)
                spans.push({ start: times[Math.max(0, times.length - this.panel.shownPoints)], end: times[times.length - 1] });
            return { start: Math.min(...spans.map(({ start }) => start)), end: Math.max(...spans.map(({ end }) => end)) };
        }
        /// @param span  null for the whole run
        zoomTo(span) {
            const { run } = this;
            if (span !== null && run !== null)
                span = { start: Math.max(run.start, span.start), end: Math.min(run.end, span.end) };
            if (span !== null && !(span.end > span.start))
                return;
            this.zoom = span !== null && run !== null && span.start <= run.start && span.end >= run.end ? null : span;
            this.feed();
            ui.drawSoon(this.draw);
        }
        select() {
            const { plot } = this;
            if (plot === null || plot.select.width < 5)
                return;
            const { left, width } = plot.select;
            this.zoomTo({ start: plot.posToVal(left, "x"), end: plot.posToVal(left + width, "x") });
            plot.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
        }
        listen(over) {
            over.append(this.now);
            let down = NaN;
            over.addEventListener("mousedown", (event) => down = event.clientX);
            over.addEventListener("click", (event) => {
                clearTimeout(this.click);
                if (!(Math.abs(event.clientX - down) < 5) || event.detail > 1 || this.plot === null)
                    return;
                const time = this.plot.posToVal(event.clientX - over.getBoundingClientRect().left, "x");
                // A second click means something else, where there is something to go back to.
                this.click = window.setTimeout(() => this.seek(time), this.zoom === null ? 0 : DoubleClick);
            });
            over.addEventListener("dblclick", () => {
                clearTimeout(this.click);
                this.zoomTo(null);
            });
        }
        seek(time) {
            if (this.feeds.size > 0 && Number.isFinite(time))
                void this.panel.all.seekTime(time);
        }
        // The picture.
        view() {
            const parts = [];
            const order = [];
            if (this.live.length > 0) {
                parts.push(this.livePart);
                order.push(...this.live);
            }
            if (this.feeds.size === 0)
                return [parts[0]?.times ?? [], ...parts[0]?.columns ?? []];
            for (const [track, feed] of this.feeds) {
                const curves = this.of(track);
                order.push(...curves);
                parts.push({
                    times: feed.rows?.times ?? [],
                    columns: curves.map(({ source: { quantity } }) => {
                        const index = feed.indexOf(quantity.path, quantity.index);
                        return feed.rows === null || index < 0 ? [] : feed.rows.column(index, quantity.component);
                    }),
                });
            }
            const { times, columns } = series.join(parts);
            const picture = [times, ...this.curves.map((curve) => columns[order.indexOf(curve)])];
            if (this.showsDifference) {
                const isExact = this.isExact;
                const [a, b] = [picture[1], picture[2]];
                picture.push(times.map((_, i) => isExact && typeof a[i] === "number" && typeof b[i] === "number" ? a[i] - b[i] : null));
            }
            return picture;
        }
        /// Whether each frame is a point.
        get isExact() {
            return [...this.feeds.values()].every(({ rows }) => rows?.framesPerPoint === 1);
        }
        render() {
            const isLive = this.live.length > 0;
            this.freezeButton.hidden = this.clearButton.hidden = !isLive;
            this.freezeButton.setAttribute("aria-pressed", String(this.frozen !== null));
            ui.setText(this.freezeButton, this.frozen === null ? "Freeze" : "Go on");
            if (this.plot === null)
                return;
            this.picture = this.view();
            this.plot.setData(this.picture);
            const span = this.zoom ?? this.run;
            if (span !== null)
                this.plot.setScale("x", { min: span.start, max: span.end });
            this.renderFeeds();
            // The curves have moved on below the pointer.
            if (this.panel.source === this)
                this.point();
            else
                this.follow(this.panel.time);
            this.showTime();
        }
        renderFeeds() {
            const feeds = [...this.feeds.values()];
            const hasPair = this.pair !== null;
            this.wholeButton.hidden = this.zoom === null;
            this.differenceButton.hidden = !hasPair;
            this.differenceButton.setAttribute("aria-pressed", String(this.showsDifference));
            ui.enable(this.differenceButton, this.showsDifference || this.isExact ? "" : "Select a range in which each frame is a point.");
            if (this.showsDifference)
                this.legend.append(this.differenceChip);
            else
                this.differenceChip.remove();
            const framesPerPoint = Math.max(1, ...feeds.map(({ rows }) => rows?.framesPerPoint ?? 1));
            const progress = Math.min(1, ...feeds.map((feed) => feed.progress));
            const isComing = feeds.some((feed) => feed.isComing && (feed.rows === null || !feed.rows.isDone));
            ui.setText(this.state, isComing ? "reading, " + Math.floor(100 * progress) + " %" : framesPerPoint > 1 ? ui.number(framesPerPoint, 3) + " frames a point" : "");
            this.state.title = framesPerPoint > 1 ? "The least and the greatest value of each group of frames are drawn. Select a range to see it in detail." : "";
            const errors = new Set(this.liveError === "" ? [] : [this.liveError]);
            for (const feed of feeds)
                if (feed.error !== "")
                    errors.add((this.panel.all.get(feed.track)?.name ?? "") + ": " + feed.error);
            for (const { source: { quantity, track, name } } of this.curves) {
                const feed = track === null ? undefined : this.feeds.get(track);
                const error = feed?.rows?.items[feed.indexOf(quantity.path, quantity.index)]?.error ?? "";
                if (error !== "")
                    errors.add((name === "" ? "" : name + ": ") + error);
            }
            ui.setText(this.error, [...errors].join("; "));
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
            const { plot } = this;
            if (plot === null || event.ctrlKey || event.altKey || event.metaKey)
                return;
            const before = this.cursorLeft;
            const width = plot.over.clientWidth;
            const move = (step) => () => plot.setCursor({ left: Math.max(0, Math.min(width, (before < 0 ? width : before) + 2 * step)), top: 0 });
            const keys = {
                ArrowLeft: move(-1), ArrowRight: move(1), PageDown: move(-20), PageUp: move(20), Escape: () => plot.setCursor({ left: -10, top: -10 }),
            };
            if (this.feeds.size > 0) {
                const time = before < 0 ? this.panel.all.time : plot.posToVal(before, "x");
                const scale = (factor) => () => {
                    const shown = this.zoom ?? this.run;
                    if (shown !== null)
                        this.zoomTo({ start: time + (shown.start - time) * factor, end: time + (shown.end - time) * factor });
                };
                Object.assign(keys, { Enter: () => this.seek(time), "+": scale(0.5), "-": scale(2), "0": () => this.zoomTo(null) });
            }
            if (keys[event.key] === undefined)
                return;
            keys[event.key]();
            event.preventDefault();
            event.stopPropagation();
        }
    }
    class Panel {
        constructor(root, session, all) {
            this.session = session;
            this.all = all;
            /// Where the common cursor is moved from, and its time.
            this.source = null;
            this.time = NaN;
            this.plots = [];
            this.chosen = null;
            this.place = el("div", { class: "plots", id: "plots" });
            this.cursor = el("output", { id: "cursor-time" });
            this.shown = el("select", { id: "shown-points", "aria-label": "How much of live curves is shown", title: "How much of live curves is shown" });
            this.target = el("select", { id: "plot-target", "aria-label": "Where the next curve goes" }, el("option", { value: "chosen" }, "same plot"), el("option", { value: "new" }, "new plot"));
            this.hint = el("p", { class: "hint" }, "Nothing is plotted. Choose a value in the tree and press Plot, or double click a number of a buffer.");
            this.showTime = () => this.plots.forEach((plot) => plot.showTime());
            this.desk = new series.Desk(session, all);
            for (const [points, name] of [["500", "500 updates"], ["5000", "5,000"], ["50000", "all"]])
                this.shown.append(el("option", { value: points }, name));
            this.shown.addEventListener("change", () => this.redraw());
            root.append(el("header", {}, el("h2", {}, "Plots"), this.cursor, this.target, this.shown), this.hint, this.place);
            session.plotAsked.add((quantities) => this.add(quantities.flatMap((quantity) => all.sourcesOf(quantity))));
            session.clocksChanged.add(() => {
                for (const clock of session.clocks)
                    this.plots.forEach((plot) => plot.reach(clock));
                this.shown.hidden = session.clocks.length === 0 && all.open.length > 0;
            });
            all.changed.add(() => ui.drawSoon(this.showTime));
        }
        get shownPoints() {
            return Number(this.shown.value);
        }
        add(sources) {
            if (sources.length === 0)
                return;
            if (this.chosen === null || this.target.value === "new") {
                this.chosen = new Plot(this, this.session);
                this.plots.push(this.chosen);
                this.place.append(this.chosen.root);
            }
            this.chosen.add(sources);
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

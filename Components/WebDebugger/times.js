"use strict";
/// What is slow: the tasks by the time that they take, and the streams that lose frames.
var timePanel;
(function (timePanel) {
    var el = ui.el;
    const MaxRows = 12;
    class Panel {
        constructor(root, watcher, session) {
            this.root = root;
            this.watcher = watcher;
            this.hint = el("p", { class: "hint", id: "times-hint" });
            this.unit = el("span", { class: "hint" });
            this.rows = el("ol", { class: "times", id: "times", "aria-label": "Tasks by their time" });
            this.streams = el("table", { class: "streams", id: "streams" });
            this.draw = () => this.render();
            root.append(el("header", {}, el("h2", {}, "Time"), this.unit), el("div", { class: "body" }, this.streams, this.hint, this.rows));
            for (const signal of [watcher.changed, session.stateChanged, session.clocksChanged])
                signal.add(() => ui.drawSoon(this.draw));
            this.isOffered = () => watcher.isOffered !== false && (session.clocks.length > 0 || watcher.times.isEnabled || watcher.streams.length > 0);
        }
        render() {
            const { times, streams } = this.watcher;
            const page = this.root.parentElement;
            const isOffered = this.isOffered();
            const shown = times.rows.slice(0, MaxRows);
            // What has nothing to show but a line takes little room.
            const state = !isOffered ? "false" : shown.length > 0 || streams.length > 0 ? "true" : "hint";
            if (page.dataset.times !== state)
                page.dataset.times = state;
            ui.setText(this.hint, this.watcher.isOffered === null ? "" : !times.isEnabled ? "What the tasks take is not measured: start the program with zel run --statistics."
                : shown.length === 0 ? "No task has run in the last second." : "");
            this.hint.hidden = this.hint.textContent === "";
            ui.setText(this.unit, shown.length === 0 ? "" : "ms a run, share");
            const most = shown[0]?.perSecond ?? 0;
            shown.forEach((row, i) => this.fill(this.rows.children[i] ?? this.makeRow(), row, most));
            while (this.rows.childElementCount > shown.length)
                this.rows.lastElementChild.remove();
            this.renderStreams(streams);
        }
        makeRow() {
            const row = el("li", {}, el("span", { class: "share", "aria-hidden": "true" }), el("span", { class: "name" }), el("span", { class: "number" }), el("span", { class: "number part" }));
            this.rows.append(row);
            return row;
        }
        fill(row, { name, path, each, runs, perSecond }, most) {
            const [share, label, number, part] = [...row.children];
            share.style.width = 100 * perSecond / most + "%";
            ui.setText(label, name);
            ui.setText(number, each < 1000 ? each.toFixed(each < 10 ? 3 : each < 100 ? 2 : 1) : ui.number(each, 4));
            ui.setText(part, (perSecond / 10).toFixed(1) + " %");
            row.title = path + "\n" + ui.number(each, 4) + " ms a run, " + ui.number(runs, 3) + " runs a second, " + ui.number(perSecond, 4) + " ms a second";
        }
        renderStreams(streams) {
            this.streams.hidden = streams.length === 0;
            const text = JSON.stringify(streams);
            if (this.streams.dataset.shown === text)
                return;
            this.streams.dataset.shown = text;
            const cells = (tag, ...texts) => texts.map((each) => el(tag, tag === "th" ? { scope: "col" } : {}, each));
            this.streams.replaceChildren(el("thead", {}, el("tr", {}, ...cells("th", "Stream", "frames", "left out", "clients"))), el("tbody", {}, ...streams.map((each) => {
                const row = el("tr", { title: each.numQueuedBytes + " bytes wait" }, ...cells("td", each.name + ":" + each.port, String(each.numFrames), String(each.numLeftOut), String(each.numClients)));
                if (each.numLeftOut > 0) {
                    row.children[2].className = "slow";
                    row.children[2].title = "Frames were left out for readers that were too slow";
                }
                return row;
            })));
        }
    }
    timePanel.Panel = Panel;
})(timePanel || (timePanel = {}));

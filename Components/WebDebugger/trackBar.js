"use strict";
/// Recordings: which there are, and one time for all that are open.
var trackBar;
(function (trackBar) {
    var el = ui.el;
    function timeText(time) {
        return Math.abs(time) < 1e7 ? time.toFixed(3) : ui.number(time, 9);
    }
    trackBar.timeText = timeText;
    class Bar {
        constructor(root, all, session) {
            this.root = root;
            this.all = all;
            this.session = session;
            this.list = el("ul", { class: "recordings", id: "recordings", "aria-label": "Recordings" });
            this.transport = el("div", { class: "transport", role: "group", "aria-label": "Time of the recordings" });
            this.play = ui.button("Play", "Play or pause the recordings", () => this.toggle());
            this.slider = el("input", { id: "track-time", type: "range", step: "any", "aria-label": "Time of the recordings", title: "Time of the recordings: arrow keys move by a frame" });
            this.marked = el("div", { class: "marked", "aria-hidden": "true" });
            this.place = el("output", { id: "track-position" });
            this.ends = [el("span", { class: "end" }), el("span", { class: "end" })];
            this.rate = el("input", { id: "track-rate", type: "text", inputmode: "decimal", size: "4", title: "Simulated seconds in a second; below 0 backwards" });
            this.loop = ui.button("Loop", "Begin again at the other end", () => void this.all.setLoop(!this.all.loops));
            this.whole = ui.button("Whole run", "Play the whole run again", () => void this.all.setRange(null));
            this.error = el("p", { class: "error", id: "track-error", role: "alert" });
            this.entered = "";
            this.fault = "";
            this.left = null;
            this.draw = () => this.render();
            this.play.id = "play";
            this.loop.id = "loop";
            this.whole.id = "range-whole";
            this.rate.addEventListener("change", () => this.takeRate());
            this.slider.addEventListener("input", () => void all.seekTime(Number(this.slider.value)));
            this.slider.addEventListener("keydown", (event) => this.keyDown(event));
            const limit = (end, text, title) => {
                const button = ui.button(text, title, () => this.limit(end));
                button.id = "range-" + end;
                return button;
            };
            const step = (count, sign, title, id) => {
                const button = ui.button(sign, title, () => void all.step(count));
                button.id = id;
                button.setAttribute("aria-label", title);
                return button;
            };
            this.transport.append(el("div", { class: "buttons" }, step(-1, "◂", "One frame back", "step-back"), this.play, step(1, "▸", "One frame on", "step-on")), el("div", { class: "way" }, this.ends[0], el("div", { class: "rail" }, this.marked, this.slider), this.ends[1]), this.place, el("div", { class: "buttons more" }, el("label", {}, "Rate ", this.rate), this.loop, limit("start", "Start here", "Playing begins at this time"), limit("end", "End here", "Playing ends at this time"), this.whole));
            root.append(this.list, this.transport, this.error);
            all.changed.add(() => ui.drawSoon(this.draw));
            session.stateChanged.add(() => ui.drawSoon(this.draw));
        }
        toggle() {
            void this.all.toggle();
        }
        takeRate() {
            const rate = protocol.numberOf(this.rate.value);
            this.fault = Number.isFinite(rate) && rate !== 0 ? "" : "Rate wants a number other than 0, not '" + this.rate.value + "'.";
            if (this.fault === "")
                void this.all.setRate(rate);
            ui.drawSoon(this.draw);
        }
        limit(end) {
            const { range, time } = this.all;
            // The other end gives way.
            void this.all.setRange(end === "start" ? { start: time, end: time < range.end ? range.end : this.all.run.end }
                : { start: time > range.start ? range.start : this.all.run.start, end: time });
        }
        keyDown(event) {
            const { start, end } = this.all.run;
            const step = (count) => () => void this.all.step(count);
            const seek = (time) => () => void this.all.seekTime(Math.max(start, Math.min(end, time)));
            const far = (end - start) / 20;
            const keys = {
                ArrowLeft: step(-1), ArrowDown: step(-1), ArrowRight: step(1), ArrowUp: step(1), PageUp: seek(this.all.time + far),
                PageDown: seek(this.all.time - far), Home: seek(start), End: seek(end), " ": () => this.toggle(),
            };
            if (keys[event.key] === undefined)
                return;
            keys[event.key]();
            event.preventDefault();
        }
        // The picture.
        render() {
            const { all, root } = this;
            const { journals, open } = all;
            root.hidden = journals.length === 0;
            this.renderList(journals);
            this.enable();
            this.transport.hidden = open.length === 0;
            ui.setText(this.error, this.fault !== "" ? this.fault : all.error);
            if (open.length === 0)
                return;
            const { run, range, time, teller, isPlaying } = all;
            const position = teller?.position ?? null;
            const play = isPlaying ? "Pause" : "Play";
            ui.setText(this.play, play);
            this.play.setAttribute("aria-label", play + " the recordings");
            this.loop.setAttribute("aria-pressed", String(all.loops));
            this.whole.hidden = !all.hasRange;
            const text = Number.isNaN(time) ? "no frame" : timeText(time) + " s" + (position === null ? "" : ", frame " + position.frame);
            ui.setText(this.place, text);
            this.place.title = position === null ? "" : position.index + 1 + " of " + teller.numFrames + " frames" + (open.length > 1 ? " of " + teller.name : "");
            ui.setText(this.ends[0], ui.number(run.start, 4) + " s");
            ui.setText(this.ends[1], ui.number(run.end, 4) + " s");
            for (const [name, value] of [["min", run.start], ["max", run.end]])
                if (this.slider.getAttribute(name) !== String(value))
                    this.slider.setAttribute(name, String(value));
            if (!Number.isNaN(time) && this.slider.value !== String(time))
                this.slider.value = String(time);
            if (this.slider.getAttribute("aria-valuetext") !== text)
                this.slider.setAttribute("aria-valuetext", text);
            const part = (at) => run.end > run.start ? 100 * (at - run.start) / (run.end - run.start) + "%" : "0";
            this.marked.hidden = !all.hasRange;
            this.marked.style.insetInlineStart = part(range.start);
            this.marked.style.width = "calc(" + part(range.end) + " - " + part(range.start) + ")";
            const rate = ui.number(all.rate);
            if (this.entered !== rate && document.activeElement !== this.rate)
                this.entered = this.rate.value = rate;
        }
        /// While there is no connection nothing is driven; who was at a control then finds back to it.
        enable() {
            const whyNot = this.session.isConnected ? "" : "There is no connection.";
            const { activeElement } = document;
            if (whyNot !== "" && this.root.contains(activeElement))
                this.left = activeElement;
            for (const control of this.root.querySelectorAll("button, input"))
                ui.enable(control, whyNot);
            if (whyNot !== "")
                return;
            if (document.activeElement === document.body)
                this.left?.focus();
            this.left = null;
        }
        renderList(journals) {
            journals.forEach((track, i) => {
                const chip = this.list.children[i] ?? this.makeChip();
                const [name, note, button] = [...chip.children];
                chip.dataset.id = String(track.id);
                chip.dataset.open = String(track.isOpen);
                chip.title = [track.file, track.session].filter((text) => text !== "").join(", session ");
                ui.setText(name, track.name);
                note.classList.toggle("error", track.error !== "");
                ui.setText(note, track.error !== "" ? track.error : !track.isOpen ? track.file :
                    track.numFrames + (track.isClosed ? " frames" : " frames, being written"));
                ui.setText(button, track.isOpen ? "Close" : "Open recording");
                button.setAttribute("aria-label", (track.isOpen ? "Close " : "Open ") + track.name);
                button.dataset.title = track.isOpen ? "Its objects go, and its memory" : "Its objects appear beside those of the run";
            });
            while (this.list.childElementCount > journals.length)
                this.list.lastElementChild.remove();
        }
        makeChip() {
            const chip = el("li", {}, el("span", { class: "name" }), el("span", { class: "note" }), ui.button("", "", () => {
                const track = this.all.get(Number(chip.dataset.id));
                if (track !== null)
                    void (track.isOpen ? this.all.closeJournal(track) : this.all.openJournal(track));
            }));
            this.list.append(chip);
            return chip;
        }
    }
    trackBar.Bar = Bar;
})(trackBar || (trackBar = {}));

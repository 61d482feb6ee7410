"use strict";
/// The first answer: does it run, how fast, does it drift, what is slow. And the controls of the clock.
var statusPanel;
(function (statusPanel) {
    var el = ui.el;
    const words = {
        running: "Running", paused: "Paused", stepping: "Stepping", standing: "Standing still",
    };
    class Panel {
        constructor(root, session, all) {
            this.root = root;
            this.session = session;
            this.all = all;
            this.state = el("strong", { id: "state", role: "status" });
            this.detail = el("span", { id: "detail" });
            this.gauges = el("dl", { class: "gauges" });
            this.values = new Map();
            this.clocks = el("select", { id: "clock", "aria-label": "Clock" });
            this.pause = ui.button("Pause", "Pause or run the clock (space, where nothing else is focused)", () => this.toggle());
            this.error = el("p", { id: "control-error", class: "error", role: "alert" });
            this.controls = [];
            this.draw = () => this.render();
            this.entered = { frequency: "", modulation: "" };
            this.pause.id = "pause";
            this.gauge("time", "Time", "Simulation time of the clock");
            this.gauge("frame", "Frame", "Ticks of the clock");
            this.gauge("fps", "Frames / s", "Ticks in a second of wall time, and what the clock's frequency asks for");
            this.gauge("speed", "Speed", "Simulated seconds in a second of wall time, and what the clock's modulation asks for");
            this.gauge("drift", "Drift", "Simulated time ahead (+) or behind (−) wall time since the clock was last changed");
            this.gauge("answer", "Answers in", "How long the simulation takes to answer: between two steps it serves the page");
            this.clocks.addEventListener("change", () => this.session.chooseClock(this.clocks.value));
            const controls = this.controlBar = el("div", { class: "controls", role: "group", "aria-label": "Clock controls" }, this.clocks, this.pause);
            this.controls.push(this.pause);
            this.form(controls, "step", "Step", "1", "How many ticks", (count) => this.control("step", { count: Math.trunc(count) }));
            this.form(controls, "stepTo", "Step to", "", "Simulation time in seconds", (time) => this.control("stepTo", { time }));
            this.form(controls, "frequency", "Frequency", "", "Ticks a second", (value) => this.control("frequency", { value }));
            this.form(controls, "modulation", "Modulation", "", "Simulated seconds in a second of ticks", (value) => this.control("modulation", { value }));
            root.append(el("div", { class: "state" }, el("span", { class: "dot", "aria-hidden": "true" }), this.state, this.detail), this.gauges, controls, this.error);
            session.stateChanged.add(() => ui.drawSoon(this.draw));
            session.clocksChanged.add(() => ui.drawSoon(this.draw));
            all.changed.add(() => ui.drawSoon(this.draw));
            setInterval(() => {
                session.poll();
                ui.drawSoon(this.draw);
            }, model.Session.pollInterval);
            ui.drawSoon(this.draw);
        }
        toggle() {
            if (!this.pause.disabled)
                this.control(this.session.clock?.enabled === true || this.session.clock?.pending !== 0 ? "pause" : "run", {});
        }
        gauge(id, name, title) {
            const value = el("dd", { id });
            this.values.set(id, value);
            this.gauges.append(el("div", { title }, el("dt", {}, name), value));
        }
        /// Recordings and nothing that runs.
        get isRecording() {
            return this.session.clocks.length === 0 && this.all.journals.length > 0;
        }
        show(id, text, grade = "") {
            const value = this.values.get(id);
            ui.setText(value, text);
            if (value.className !== grade)
                value.className = grade;
        }
        form(parent, id, name, value, title, act) {
            const input = el("input", { id: id + "-value", type: "text", inputmode: "decimal", size: "7", value, title, "aria-label": name + ": " + title });
            const submit = el("button", { id, title: name + ": " + title }, name);
            const form = el("form", { novalidate: "" }, submit, input);
            form.addEventListener("submit", (event) => {
                event.preventDefault();
                const number = protocol.numberOf(input.value);
                if (Number.isNaN(number))
                    this.fail(name + " wants a number, not '" + input.value + "'.");
                else if (!submit.disabled)
                    act(number);
            });
            this.controls.push(submit, input);
            parent.append(form);
        }
        control(action, members) {
            this.session.control(action, members).then(() => this.fail(""), (error) => this.fail(error.message));
        }
        fail(text) {
            ui.setText(this.error, text);
        }
        render() {
            const { session } = this;
            const { clock, pace } = session;
            this.renderState();
            const whyNot = clock === null && session.isConnected ? "The simulation has no clock." : session.whyReadOnly;
            for (const control of this.controls)
                ui.enable(control, whyNot);
            ui.enable(this.clocks, session.clocks.length === 0 ? "The simulation has no clock." : "");
            const paths = session.clocks.map((each) => each.path || "(root)");
            if (this.clocks.length !== paths.length || paths.some((path, i) => this.clocks.options[i].text !== path))
                this.clocks.replaceChildren(...session.clocks.map((each) => el("option", { value: each.path }, each.path || "(root)")));
            this.clocks.hidden = session.clocks.length < 2;
            this.controlBar.hidden = this.isRecording;
            for (const id of ["fps", "speed", "drift"])
                this.values.get(id).parentElement.hidden = this.isRecording;
            if (this.isRecording)
                this.renderRecording();
            if (clock === null)
                return;
            if (this.clocks.value !== clock.path)
                this.clocks.value = clock.path;
            ui.setText(this.pause, clock.enabled || clock.pending !== 0 ? "Pause" : "Run");
            this.follow("frequency", clock.frequency);
            this.follow("modulation", clock.modulation);
            this.show("time", trackBar.timeText(clock.time) + " s");
            this.show("frame", String(clock.frame));
            this.renderPace(clock, pace);
        }
        renderRecording() {
            const { time, teller } = this.all;
            this.show("time", Number.isNaN(time) ? "–" : trackBar.timeText(time) + " s");
            this.show("frame", teller === null ? "–" : String(teller.position.frame));
            this.showAnswer();
        }
        showAnswer() {
            const answer = Math.max(this.session.answerTime, this.session.waitingFor);
            this.show("answer", ui.seconds(answer / 1000), answer > 250 ? "slow" : "");
        }
        renderState() {
            const { session } = this;
            const connection = session.connection.state;
            const motion = session.pace.motion;
            let state = { connecting: "Connecting", lost: "Connection lost", refused: "Refused", closed: "Not connected", connected: "" }[connection];
            let grade = connection === "connecting" ? "idle" : "bad";
            let detail = connection === "lost" ? session.detail + "; connecting again" : connection === "connected" ? "" : session.detail;
            if (connection === "connected") {
                state = session.info === null ? "Connected" : session.clocks.length === 0 ? "Connected, no clock" : motion === null ? "Connected" : words[motion];
                grade = motion === "standing" ? "bad" : motion === "running" || motion === "stepping" ? "good" : "idle";
                detail = session.info === null ? session.detail : session.clockError !== "" ? session.clockError :
                    "process " + session.info.pid + (session.info.writable ? "" : ", read only");
                if (this.isRecording && session.info !== null) {
                    const { open, isPlaying, rate } = this.all;
                    state = "Recording";
                    grade = isPlaying ? "good" : "idle";
                    detail = session.clockError !== "" ? session.clockError : open.length === 0 ? "not open" : (isPlaying ? "plays at " + ui.number(rate) + " s/s" : "paused") + ", process " + session.info.pid;
                }
                if (session.waitingFor > 2000) {
                    state = "No answer";
                    grade = "bad";
                    detail = "for " + ui.seconds(session.waitingFor / 1000);
                }
            }
            ui.setText(this.state, state);
            ui.setText(this.detail, detail === "connected" ? "" : detail);
            if (this.root.dataset.grade !== grade)
                this.root.dataset.grade = grade;
        }
        renderPace(clock, pace) {
            const isRunning = pace.motion === "running" || pace.motion === "standing";
            const fps = pace.framesPerSecond;
            const speed = pace.secondsPerSecond;
            const known = (value, digits) => Number.isNaN(value) ? "–" : ui.number(Number(value.toPrecision(digits)));
            this.show("fps", known(fps, 3) + " of " + ui.number(clock.frequency), isRunning && fps < 0.9 * clock.frequency ? "slow" : "");
            this.show("speed", known(speed, 3) + " of " + ui.number(clock.modulation) + " s/s", isRunning && speed < 0.9 * clock.modulation ? "slow" : "");
            const drift = pace.drift;
            // What is wall time and what is not: in units of wall time.
            const late = drift / clock.modulation;
            this.show("drift", Number.isNaN(drift) ? "–" : (drift < 0 ? "−" : "+") + ui.seconds(Math.abs(drift)) + " / " + Math.round(pace.driftSince) + " s", late < -0.25 && late < -0.01 * pace.driftSince ? "slow" : "");
            this.showAnswer();
        }
        /// The field shows what holds, but not while somebody writes into it.
        follow(name, value) {
            const input = this.root.querySelector("#" + name + "-value");
            const text = ui.number(value, 9);
            if (this.entered[name] === text || document.activeElement === input)
                return;
            this.entered[name] = text;
            input.value = text;
        }
    }
    statusPanel.Panel = Panel;
})(statusPanel || (statusPanel = {}));

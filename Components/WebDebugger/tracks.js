"use strict";
/// What has frames over time: the run itself, and recordings. All recordings that are open are driven together, by their time.
var tracks;
(function (tracks) {
    var textOf = protocol.textOf;
    var numberOf = protocol.numberOf;
    var countOf = protocol.countOf;
    /// In seconds.
    const LongestWatched = 600;
    const ShortestWatched = 1;
    const FramesPerSecond = 60;
    /// Between two looks at a recording that does not grow, in polls.
    const LongestPause = 16;
    function finite(value, otherwise) {
        const number = numberOf(value);
        return Number.isFinite(number) ? number : otherwise;
    }
    function spanOf(start, end, otherwise) {
        const span = { start: finite(start, otherwise.start), end: finite(end, otherwise.end) };
        return span.start <= span.end ? span : otherwise;
    }
    function positionOf(value) {
        if (!protocol.isMembers(value) || !Number.isFinite(numberOf(value.time)))
            return null;
        return { frame: numberOf(value.frame), time: numberOf(value.time), index: countOf(value.index) };
    }
    /// @return null where the members name no track
    function trackOf(members) {
        const id = numberOf(members.id);
        if (!Number.isSafeInteger(id) || id < 0)
            return null;
        const run = spanOf(members.startTime, members.endTime, { start: 0, end: 0 });
        const limits = protocol.isMembers(members.range) ? members.range : {};
        const range = spanOf(limits.start, limits.end, run);
        return {
            id, name: textOf(members.name) || "track " + id, isLive: members.live === true, isOpen: members.open === true, path: textOf(members.path),
            session: textOf(members.session), file: textOf(members.file), isClosed: members.closed === true, numFrames: countOf(members.numFrames), run,
            timeStep: finite(members.timeStep, 0), position: positionOf(members.position), isPlaying: members.playing === true,
            rate: finite(members.rate, 1) || 1, stride: countOf(members.stride) || 1, loops: members.loop === true,
            range: { start: Math.max(range.start, run.start), end: Math.min(range.end, run.end) }, error: textOf(members.error),
        };
    }
    tracks.trackOf = trackOf;
    /// Whether playing from the time on would show anything.
    function leadsOn(track, time, rate) {
        return rate > 0 ? time >= track.range.start && time < track.range.end : time > track.range.start && time <= track.range.end;
    }
    /// Whether it stopped because there is nothing more.
    function isAtEnd(track, rate) {
        const { position, range } = track;
        // Of each n-th frame the last may lie ahead of the end.
        const step = track.stride > 1 ? track.stride * Math.abs(track.timeStep) : 0;
        return position === null || (rate > 0 ? position.time + step >= range.end : position.time - step <= range.start);
    }
    function around(all) {
        const spans = all.filter(({ start, end }) => start <= end);
        return spans.length === 0 ? { start: 0, end: 0 } :
            { start: Math.min(...spans.map(({ start }) => start)), end: Math.max(...spans.map(({ end }) => end)) };
    }
    class Tracks {
        constructor(session) {
            this.session = session;
            this.list = [];
            this.changed = new model.Signal();
            /// A recording was opened or closed: other objects are there.
            this.opened = new model.Signal();
            /// What became of the last thing that was asked for; "" if all is well.
            this.error = "";
            /// Whether what is plotted of one recording is plotted of all.
            this.comparesAll = true;
            this.isConnected = false;
            this.isRefused = false;
            this.isAsking = false;
            this.wanted = null;
            this.target = null;
            this.numInFlight = 0;
            this.numPolls = 0;
            this.growth = new Map();
            this.isTogether = false;
            this.loopsTogether = false;
            this.chosenRate = null;
            session.connection.onPush("Track.State", ({ header }) => {
                if (protocol.isMembers(header.track))
                    this.take(header.track, true);
            });
            session.stateChanged.add(() => {
                const isNew = session.isConnected && !this.isConnected;
                this.isConnected = session.isConnected;
                if (isNew) {
                    this.numInFlight = 0;
                    this.isTogether = this.isAsking = this.isRefused = false;
                    this.poll();
                }
                else if (!session.isConnected) {
                    this.changed.fire();
                }
            });
        }
        get journals() {
            return this.list.filter(({ isLive }) => !isLive);
        }
        /// The recordings that are driven.
        get open() {
            return this.list.filter(({ isLive, isOpen }) => !isLive && isOpen);
        }
        get(id) {
            return this.list.find((track) => track.id === id) ?? null;
        }
        /// The open recording that a path leads into.
        ownerOf(path) {
            return this.open.find((track) => track.path !== "" && (path === track.path || path.startsWith(track.path + "."))) ?? null;
        }
        /// The quantity, and where all are compared those of the same path in the other recordings.
        sourcesOf(quantity) {
            const owner = this.ownerOf(quantity.path);
            if (owner === null)
                return [{ quantity, track: null, name: "" }];
            const { open } = this;
            return open.filter((track) => track === owner || this.comparesAll).map((track) => {
                const move = (text) => text.startsWith(owner.path) ? track.path + text.slice(owner.path.length) : text;
                const below = (text) => open.length > 1 && text.startsWith(track.path + ".") ? text.slice(track.path.length + 1) : text;
                const moved = { ...quantity, path: move(quantity.path), label: below(move(quantity.label)) };
                return { quantity: moved, track: track.id, name: open.length > 1 ? track.name : "" };
            });
        }
        // Where they stand.
        get isPlaying() {
            return this.open.some(({ isPlaying }) => isPlaying);
        }
        get rate() {
            const playing = this.open.find(({ isPlaying }) => isPlaying);
            return playing?.rate ?? this.chosenRate ?? this.open.find(({ rate }) => rate !== 1)?.rate ?? this.naturalRate;
        }
        /// Wall time for what can be watched in it, else as many frames as a screen shows.
        get naturalRate() {
            const longest = this.open.reduce((best, track) => best === null || track.numFrames > best.numFrames ? track : best, null);
            const seconds = longest === null ? NaN : longest.run.end - longest.run.start;
            return longest !== null && longest.numFrames > 1 && seconds > 0 && (seconds > LongestWatched || seconds < ShortestWatched) ?
                Number((FramesPerSecond * seconds / (longest.numFrames - 1)).toPrecision(2)) : 1;
        }
        get loops() {
            return this.loopsTogether || this.open.some(({ loops }) => loops);
        }
        get run() {
            return around(this.open.map(({ run }) => run));
        }
        get range() {
            const range = around(this.open.map(({ range }) => range));
            return this.open.some(({ range: { start, end } }) => start <= end) ? range : this.run;
        }
        get hasRange() {
            return this.open.some(({ run, range }) => range.start > run.start || range.end < run.end);
        }
        /// The recording whose position is that of all: one that waits at its own beginning or end tells nothing.
        get teller() {
            const { start, end } = this.run;
            const shown = this.open.filter(({ position }) => position !== null);
            const inside = shown.filter(({ position, run }) => !(position.time <= run.start && run.start > start) && !(position.time >= run.end && run.end < end));
            const weight = (track) => (track.isPlaying ? 1e300 : 0) + track.run.end - track.run.start;
            return (inside.length > 0 ? inside : shown).reduce((best, track) => best === null || weight(track) > weight(best) ? track : best, null);
        }
        /// Of the recordings, also while they are on their way there; NaN without one.
        get time() {
            return this.wanted ?? this.target ?? this.teller?.position?.time ?? NaN;
        }
        // What they are asked for.
        openJournal(track) {
            return this.control(track, "open", {});
        }
        async closeJournal(track) {
            const isDone = await this.control(track, "close", {});
            // What looped with others does so by itself.
            if (this.loopsTogether && this.open.length === 1)
                await this.setLoop(true);
            return isDone;
        }
        async play(rate = this.rate) {
            this.chosenRate = rate;
            const { open } = this;
            if (open.length === 1) {
                if (this.loopsTogether)
                    await this.setLoop(true);
                await this.control(open[0], "play", { rate });
                return;
            }
            const { start, end } = this.range;
            const time = this.time;
            await this.playFrom(rate > 0 ? (time >= start && time < end ? time : start) : (time > start && time <= end ? time : end), rate);
        }
        async pause() {
            this.isTogether = false;
            await this.all("pause", {});
        }
        async toggle() {
            await (this.isPlaying ? this.pause() : this.play());
        }
        /// What plays goes on at the rate; what does not will.
        async setRate(rate) {
            this.chosenRate = rate;
            if (this.isPlaying)
                await this.play(rate);
            else
                this.changed.fire();
        }
        /// Goes there, but skips what is wanted while it is on its way elsewhere.
        async seekTime(time) {
            this.isTogether = false;
            this.wanted = time;
            this.changed.fire();
            if (this.target !== null)
                return;
            while (this.wanted !== null) {
                this.target = this.wanted;
                this.wanted = null;
                await this.all("seekTime", { time: this.target });
            }
            this.target = null;
            this.changed.fire();
        }
        /// Frames of the one that tells the time; the others follow.
        async step(count) {
            this.isTogether = false;
            const { teller } = this;
            if (teller === null || !await this.control(teller, "step", { count }))
                return;
            const time = this.get(teller.id)?.position?.time;
            if (time !== undefined)
                await Promise.all(this.open.filter(({ id }) => id !== teller.id).map((track) => this.control(track, "seekTime", { time })));
        }
        /// Of several, each would begin again at its own end: then they are begun again from here.
        async setLoop(loop) {
            const { open } = this;
            this.loopsTogether = loop && open.length > 1;
            await this.all("loop", { loop: loop && open.length === 1 });
        }
        /// @param range  null for the whole run
        async setRange(range) {
            const { run } = this;
            // What is not limited may grow.
            await this.all("range", {
                ...range !== null && range.start > run.start ? { start: range.start } : {}, ...range !== null && range.end < run.end ? { end: range.end } : {},
            });
        }
        /// To be called again and again: asks for tracks that are new, and recordings for what was written to them meanwhile.
        poll() {
            if (!this.session.isConnected || !this.session.offers("Track.List") || this.isRefused || this.isAsking)
                return;
            this.isAsking = true;
            this.session.request("Track.List", {}).then(({ header }) => {
                this.isAsking = false;
                this.takeAll(protocol.listOf(header.tracks));
                this.readOn();
            }, (error) => {
                this.isAsking = false;
                // A program that knows of no tracks is not asked again.
                this.isRefused = error instanceof protocol.Refusal;
            });
        }
        static get pollInterval() {
            return 2000;
        }
        /// What was written to recordings meanwhile. One that has not grown is asked less and less often: its writer may be gone.
        readOn() {
            ++this.numPolls;
            for (const track of this.open) {
                const state = this.growth.get(track.id) ?? { numFrames: -1, pause: 1, next: 0 };
                if (track.isClosed || this.numPolls < state.next)
                    continue;
                const pause = state.numFrames === track.numFrames ? Math.min(2 * state.pause, LongestPause) : 1;
                this.growth.set(track.id, { numFrames: track.numFrames, pause, next: this.numPolls + pause });
                void this.control(track, "open", {}, true);
            }
        }
        async all(action, members) {
            await Promise.all(this.open.map((track) => this.control(track, action, members)));
        }
        /// @param isQuiet  nobody has asked for it
        /// @return whether it was done
        async control(track, action, members, isQuiet = false) {
            ++this.numInFlight;
            let isDone = false;
            try {
                const { header } = await this.session.request("Track.Control", { id: track.id, action, ...members });
                isDone = true;
                if (!isQuiet)
                    this.error = "";
                if (protocol.isMembers(header.track))
                    this.take(header.track, false);
            }
            catch (error) {
                this.isTogether = this.isTogether && isQuiet;
                if (error instanceof protocol.Refusal && !isQuiet)
                    this.error = track.name + ": " + error.message;
                this.changed.fire();
            }
            this.numInFlight = Math.max(0, this.numInFlight - 1);
            if (this.numInFlight === 0)
                this.goOn();
            return isDone;
        }
        async playFrom(time, rate) {
            if (this.open.some(({ loops }) => loops))
                await this.setLoop(true);
            await this.seekTime(time);
            this.isTogether = true;
            await Promise.all(this.open.filter((track) => leadsOn(track, time, rate)).map((track) => this.control(track, "play", { rate })));
        }
        /// Starts those whose time has come, and all again from the beginning where that is wanted.
        goOn() {
            const { open, rate, time } = this;
            if (!this.isTogether || this.numInFlight > 0 || open.length < 2)
                return;
            const isPlaying = open.some((track) => track.isPlaying);
            const due = open.filter((track) => !track.isPlaying && leadsOn(track, time, rate) && !isAtEnd(track, rate));
            if (due.length > 0) {
                for (const track of due)
                    void this.control(track, "play", { rate });
            }
            else if (!isPlaying) {
                this.isTogether = false;
                if (this.loopsTogether)
                    void this.play(rate);
            }
        }
        take(members, isPush) {
            const track = trackOf(members);
            if (track === null)
                return;
            const before = this.get(track.id);
            this.list = before === null ? [...this.list, track] : this.list.map((each) => each.id === track.id ? track : each);
            // The page looks at the run's clock.
            if (track.isLive && before !== null)
                return;
            // Somebody else has stopped it.
            if (isPush && before?.isPlaying === true && !track.isPlaying && !isAtEnd(track, track.rate) && this.numInFlight === 0)
                this.isTogether = false;
            if ((before?.isOpen ?? false) !== track.isOpen && !track.isLive)
                this.opened.fire(track);
            this.changed.fire();
            if (isPush)
                this.goOn();
        }
        takeAll(all) {
            const before = this.list;
            const now = all.map(trackOf).filter((track) => track !== null);
            this.list = now.filter((track, i) => now.findIndex(({ id }) => id === track.id) === i);
            for (const track of this.journals)
                if ((before.find(({ id }) => id === track.id)?.isOpen ?? false) !== track.isOpen)
                    this.opened.fire(track);
            this.changed.fire();
        }
    }
    tracks.Tracks = Tracks;
})(tracks || (tracks = {}));

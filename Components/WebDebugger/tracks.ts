/// What has frames over time: the run itself, and recordings. All recordings that are open are driven together, by their time.
namespace tracks {
    import Members = protocol.Members;
    import textOf = protocol.textOf;
    import numberOf = protocol.numberOf;
    import countOf = protocol.countOf;

    export interface Position {
        readonly frame: number;
        readonly time: number;
        /// Place in the recording, counted from 0.
        readonly index: number;
    }

    export interface Span {
        readonly start: number;
        readonly end: number;
    }

    export interface Track {
        readonly id: number;
        readonly name: string;
        readonly isLive: boolean;
        readonly isOpen: boolean;
        /// Below it are its objects.
        readonly path: string;
        readonly session: string;
        readonly file: string;
        /// Whether it will not grow.
        readonly isClosed: boolean;
        readonly numFrames: number;
        /// The times of the first and the last frame.
        readonly run: Span;
        readonly timeStep: number;
        /// Null where there is no frame.
        readonly position: Position | null;
        readonly isPlaying: boolean;
        /// Simulated seconds in a second, below 0 backwards.
        readonly rate: number;
        readonly stride: number;
        readonly loops: boolean;
        /// Where playing stays, as far as there are frames; the start is above the end where there are none.
        readonly range: Span;
        readonly error: string;
    }

    /// In seconds.
    const LongestWatched = 600;
    const ShortestWatched = 1;
    const FramesPerSecond = 60;
    /// Between two looks at a recording that does not grow, in polls.
    const LongestPause = 16;

    function finite(value: unknown, otherwise: number): number {
        const number = numberOf(value);
        return Number.isFinite(number) ? number : otherwise;
    }
    function spanOf(start: unknown, end: unknown, otherwise: Span): Span {
        const span = { start: finite(start, otherwise.start), end: finite(end, otherwise.end) };
        return span.start <= span.end ? span : otherwise;
    }
    function positionOf(value: unknown): Position | null {
        if (!protocol.isMembers(value) || !Number.isFinite(numberOf(value.time)))
            return null;
        return { frame: numberOf(value.frame), time: numberOf(value.time), index: countOf(value.index) };
    }

    /// @return null where the members name no track
    export function trackOf(members: Members): Track | null {
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

    /// Whether playing from the time on would show anything.
    function leadsOn(track: Track, time: number, rate: number): boolean {
        return rate > 0 ? time >= track.range.start && time < track.range.end : time > track.range.start && time <= track.range.end;
    }
    /// Whether it stopped because there is nothing more.
    function isAtEnd(track: Track, rate: number): boolean {
        const { position, range } = track;
        // Of each n-th frame the last may lie ahead of the end.
        const step = track.stride > 1 ? track.stride * Math.abs(track.timeStep) : 0;
        return position === null || (rate > 0 ? position.time + step >= range.end : position.time - step <= range.start);
    }
    function around(all: readonly Span[]): Span {
        const spans = all.filter(({ start, end }) => start <= end);
        return spans.length === 0 ? { start: 0, end: 0 } :
            { start: Math.min(...spans.map(({ start }) => start)), end: Math.max(...spans.map(({ end }) => end)) };
    }

    /// A quantity of a recording, or of the run.
    export interface Source {
        readonly quantity: model.Quantity;
        /// Null for the run.
        readonly track: number | null;
        /// What tells it from others of the same path; "" where there are none.
        readonly name: string;
    }

    export class Tracks {
        list: readonly Track[] = [];
        readonly changed = new model.Signal();
        /// A recording was opened or closed: other objects are there.
        readonly opened = new model.Signal<Track>();
        /// What became of the last thing that was asked for; "" if all is well.
        error = "";
        /// Whether what is plotted of one recording is plotted of all.
        comparesAll = true;
        private isConnected = false;
        private isRefused = false;
        private isAsking = false;
        private wanted: number | null = null;
        private target: number | null = null;
        private numInFlight = 0;
        private numPolls = 0;
        private readonly growth = new Map<number, { readonly numFrames: number; readonly pause: number; readonly next: number }>();
        private isTogether = false;
        private loopsTogether = false;
        private chosenRate: number | null = null;

        constructor(private readonly session: model.Session) {
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
                } else if (!session.isConnected) {
                    this.changed.fire();
                }
            });
        }

        get journals(): Track[] {
            return this.list.filter(({ isLive }) => !isLive);
        }
        /// The recordings that are driven.
        get open(): Track[] {
            return this.list.filter(({ isLive, isOpen }) => !isLive && isOpen);
        }
        get(id: number): Track | null {
            return this.list.find((track) => track.id === id) ?? null;
        }
        /// The open recording that a path leads into.
        ownerOf(path: string): Track | null {
            return this.open.find((track) => track.path !== "" && (path === track.path || path.startsWith(track.path + "."))) ?? null;
        }
        /// The quantity, and where all are compared those of the same path in the other recordings.
        sourcesOf(quantity: model.Quantity): Source[] {
            const owner = this.ownerOf(quantity.path);
            if (owner === null)
                return [{ quantity, track: null, name: "" }];
            const { open } = this;
            return open.filter((track) => track === owner || this.comparesAll).map((track) => {
                const move = (text: string): string => text.startsWith(owner.path) ? track.path + text.slice(owner.path.length) : text;
                const below = (text: string): string => open.length > 1 && text.startsWith(track.path + ".") ? text.slice(track.path.length + 1) : text;
                const moved = { ...quantity, path: move(quantity.path), label: below(move(quantity.label)) };
                return { quantity: moved, track: track.id, name: open.length > 1 ? track.name : "" };
            });
        }

        // Where they stand.

        get isPlaying(): boolean {
            return this.open.some(({ isPlaying }) => isPlaying);
        }
        get rate(): number {
            const playing = this.open.find(({ isPlaying }) => isPlaying);
            return playing?.rate ?? this.chosenRate ?? this.open.find(({ rate }) => rate !== 1)?.rate ?? this.naturalRate;
        }
        /// Wall time for what can be watched in it, else as many frames as a screen shows.
        private get naturalRate(): number {
            const longest = this.open.reduce<Track | null>((best, track) => best === null || track.numFrames > best.numFrames ? track : best, null);
            const seconds = longest === null ? NaN : longest.run.end - longest.run.start;
            return longest !== null && longest.numFrames > 1 && seconds > 0 && (seconds > LongestWatched || seconds < ShortestWatched) ?
                Number((FramesPerSecond * seconds / (longest.numFrames - 1)).toPrecision(2)) : 1;
        }
        get loops(): boolean {
            return this.loopsTogether || this.open.some(({ loops }) => loops);
        }
        get run(): Span {
            return around(this.open.map(({ run }) => run));
        }
        get range(): Span {
            const range = around(this.open.map(({ range }) => range));
            return this.open.some(({ range: { start, end } }) => start <= end) ? range : this.run;
        }
        get hasRange(): boolean {
            return this.open.some(({ run, range }) => range.start > run.start || range.end < run.end);
        }
        /// The recording whose position is that of all: one that waits at its own beginning or end tells nothing.
        get teller(): Track | null {
            const { start, end } = this.run;
            const shown = this.open.filter(({ position }) => position !== null);
            const inside = shown.filter(({ position, run }) =>
                !(position!.time <= run.start && run.start > start) && !(position!.time >= run.end && run.end < end));
            const weight = (track: Track): number => (track.isPlaying ? 1e300 : 0) + track.run.end - track.run.start;
            return (inside.length > 0 ? inside : shown).reduce<Track | null>((best, track) =>
                best === null || weight(track) > weight(best) ? track : best, null);
        }
        /// Of the recordings, also while they are on their way there; NaN without one.
        get time(): number {
            return this.wanted ?? this.target ?? this.teller?.position?.time ?? NaN;
        }

        // What they are asked for.

        openJournal(track: Track): Promise<boolean> {
            return this.control(track, "open", {});
        }
        async closeJournal(track: Track): Promise<boolean> {
            const isDone = await this.control(track, "close", {});
            // What looped with others does so by itself.
            if (this.loopsTogether && this.open.length === 1)
                await this.setLoop(true);
            return isDone;
        }

        async play(rate = this.rate): Promise<void> {
            this.chosenRate = rate;
            const { open } = this;
            if (open.length === 1) {
                if (this.loopsTogether)
                    await this.setLoop(true);
                await this.control(open[0]!, "play", { rate });
                return;
            }
            const { start, end } = this.range;
            const time = this.time;
            await this.playFrom(rate > 0 ? (time >= start && time < end ? time : start) : (time > start && time <= end ? time : end), rate);
        }
        async pause(): Promise<void> {
            this.isTogether = false;
            await this.all("pause", {});
        }
        async toggle(): Promise<void> {
            await (this.isPlaying ? this.pause() : this.play());
        }
        /// What plays goes on at the rate; what does not will.
        async setRate(rate: number): Promise<void> {
            this.chosenRate = rate;
            if (this.isPlaying)
                await this.play(rate);
            else
                this.changed.fire();
        }
        /// Goes there, but skips what is wanted while it is on its way elsewhere.
        async seekTime(time: number): Promise<void> {
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
        async step(count: number): Promise<void> {
            this.isTogether = false;
            const { teller } = this;
            if (teller === null || !await this.control(teller, "step", { count }))
                return;
            const time = this.get(teller.id)?.position?.time;
            if (time !== undefined)
                await Promise.all(this.open.filter(({ id }) => id !== teller.id).map((track) => this.control(track, "seekTime", { time })));
        }
        /// Of several, each would begin again at its own end: then they are begun again from here.
        async setLoop(loop: boolean): Promise<void> {
            const { open } = this;
            this.loopsTogether = loop && open.length > 1;
            await this.all("loop", { loop: loop && open.length === 1 });
        }
        /// @param range  null for the whole run
        async setRange(range: Span | null): Promise<void> {
            const { run } = this;
            // What is not limited may grow.
            await this.all("range", {
                ...range !== null && range.start > run.start ? { start: range.start } : {}, ...range !== null && range.end < run.end ? { end: range.end } : {},
            });
        }

        /// To be called again and again: asks for tracks that are new, and recordings for what was written to them meanwhile.
        poll(): void {
            if (!this.session.isConnected || !this.session.offers("Track.List") || this.isRefused || this.isAsking)
                return;
            this.isAsking = true;
            this.session.request("Track.List", {}).then(({ header }) => {
                this.isAsking = false;
                this.takeAll(protocol.listOf(header.tracks));
                this.readOn();
            }, (error: Error) => {
                this.isAsking = false;
                // A program that knows of no tracks is not asked again.
                this.isRefused = error instanceof protocol.Refusal;
            });
        }
        static get pollInterval(): number {
            return 2000;
        }

        /// What was written to recordings meanwhile. One that has not grown is asked less and less often: its writer may be gone.
        private readOn(): void {
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
        private async all(action: string, members: Members): Promise<void> {
            await Promise.all(this.open.map((track) => this.control(track, action, members)));
        }
        /// @param isQuiet  nobody has asked for it
        /// @return whether it was done
        private async control(track: Track, action: string, members: Members, isQuiet = false): Promise<boolean> {
            ++this.numInFlight;
            let isDone = false;
            try {
                const { header } = await this.session.request("Track.Control", { id: track.id, action, ...members });
                isDone = true;
                if (!isQuiet)
                    this.error = "";
                if (protocol.isMembers(header.track))
                    this.take(header.track, false);
            } catch (error) {
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
        private async playFrom(time: number, rate: number): Promise<void> {
            if (this.open.some(({ loops }) => loops))
                await this.setLoop(true);
            await this.seekTime(time);
            this.isTogether = true;
            await Promise.all(this.open.filter((track) => leadsOn(track, time, rate)).map((track) => this.control(track, "play", { rate })));
        }
        /// Starts those whose time has come, and all again from the beginning where that is wanted.
        private goOn(): void {
            const { open, rate, time } = this;
            if (!this.isTogether || this.numInFlight > 0 || open.length < 2)
                return;
            const isPlaying = open.some((track) => track.isPlaying);
            const due = open.filter((track) => !track.isPlaying && leadsOn(track, time, rate) && !isAtEnd(track, rate));
            if (due.length > 0) {
                for (const track of due)
                    void this.control(track, "play", { rate });
            } else if (!isPlaying) {
                this.isTogether = false;
                if (this.loopsTogether)
                    void this.play(rate);
            }
        }

        private take(members: Members, isPush: boolean): void {
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
        private takeAll(all: readonly Members[]): void {
            const before = this.list;
            const now = all.map(trackOf).filter((track): track is Track => track !== null);
            this.list = now.filter((track, i) => now.findIndex(({ id }) => id === track.id) === i);
            for (const track of this.journals)
                if ((before.find(({ id }) => id === track.id)?.isOpen ?? false) !== track.isOpen)
                    this.opened.fire(track);
            this.changed.fire();
        }
    }
}

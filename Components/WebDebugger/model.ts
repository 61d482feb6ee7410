/// What the page knows of the simulation, and what its panels share. No elements of the page here.
namespace model {
    import Members = protocol.Members;
    import textOf = protocol.textOf;
    import numberOf = protocol.numberOf;
    import countOf = protocol.countOf;

    export class Signal<T = void> {
        private readonly listeners: ((value: T) => void)[] = [];
        add(listener: (value: T) => void): void {
            this.listeners.push(listener);
        }
        fire(value: T): void {
            for (const listener of this.listeners)
                listener(value);
        }
    }

    // What the simulation tells.

    export type Value = string | number | boolean;

    export interface Entry {
        readonly name: string;
        readonly path: string;
        readonly model: string;
        readonly implementation: string;
        readonly kind: string;
        readonly numChildren: number;
        /// Null where they were not asked for.
        readonly children: Entry[] | null;
        readonly type: string;
        readonly value: Value | null;
        readonly binding: string;
        readonly numElements: number | null;
        readonly capacity: number | null;
        readonly entity: string;
        readonly target: string | null;
        readonly enabled: boolean | null;
    }

    function valueOf(value: unknown): Value | null {
        return typeof value === "string" || typeof value === "number" || typeof value === "boolean" ? value : null;
    }

    export function entryOf(members: Members): Entry {
        const countOrNull = (value: unknown): number | null => value === undefined ? null : countOf(value);
        return {
            name: textOf(members.name), path: textOf(members.path), model: textOf(members.model),
            implementation: textOf(members.implementation), kind: textOf(members.kind), numChildren: countOf(members.numChildren),
            children: Array.isArray(members.children) ? protocol.listOf(members.children).map(entryOf) : null,
            type: textOf(members.type), value: valueOf(members.value), binding: textOf(members.binding),
            numElements: countOrNull(members.numElements), capacity: countOrNull(members.capacity), entity: textOf(members.entity),
            target: members.target === undefined ? null : textOf(members.target),
            enabled: typeof members.enabled === "boolean" ? members.enabled : null,
        };
    }

    export interface Clock {
        readonly path: string;
        readonly time: number;
        readonly frame: number;
        readonly frequency: number;
        readonly timeStep: number;
        readonly modulation: number;
        readonly enabled: boolean;
        readonly master: string;
        readonly pending: number;
    }

    /// One number that can be plotted: of a value, or of an element of a buffer.
    export interface Quantity {
        readonly path: string;
        /// Of an element; null for a value.
        readonly index: number | null;
        readonly component: number;
        readonly label: string;
    }

    const Axes = ["x", "y", "z", "w"];
    export function componentName(component: number, components: number): string {
        return components === 1 ? "value" : components <= 4 ? Axes[component]! : String(component);
    }
    /// The numbers that a value consists of; none where it is not made of numbers alone.
    export function numbersOf(value: Value | null): number[] {
        if (value === null || value === "")
            return [];
        const parts = String(value).trim().split(/[\s,]+/);
        const numbers = typeof value === "boolean" ? [numberOf(value)] : parts.map(numberOf);
        return numbers.every((number, i) => !Number.isNaN(number) || parts[i] === "nan") ? numbers : [];
    }
    export function quantitiesOf(path: string, value: Value | null): Quantity[] {
        const numbers = numbersOf(value);
        return numbers.map((_, component) => ({
            path, index: null, component, label: path + (numbers.length === 1 ? "" : "." + componentName(component, numbers.length)),
        }));
    }

    export function clockOf(members: Members): Clock {
        return {
            path: textOf(members.path), time: numberOf(members.time), frame: numberOf(members.frame),
            frequency: numberOf(members.frequency), timeStep: numberOf(members.timeStep), modulation: numberOf(members.modulation),
            enabled: members.enabled === true, master: textOf(members.master), pending: numberOf(members.pending) || 0,
        };
    }

    // How a clock does.

    export type Motion = "running" | "paused" | "stepping" | "standing";

    interface Sample {
        /// Seconds.
        readonly wall: number;
        readonly clock: Clock;
    }

    /// How fast a clock goes, from what was seen of it.
    export class Pace {
        private static readonly Window = 3;
        private samples: Sample[] = [];
        /// Where the drift is counted from.
        private start: Sample | null = null;

        /// @param wall  seconds, by any clock that only goes forward
        add(wall: number, clock: Clock): void {
            const last = this.samples[this.samples.length - 1];
            if (last !== undefined && Pace.isOtherCourse(last.clock, clock)) {
                this.samples = [];
                this.start = null;
            }
            const sample = { wall, clock };
            this.samples.push(sample);
            while (this.samples.length > 2 && this.samples[1]!.wall < wall - Pace.Window)
                this.samples.shift();
            if (this.start === null && clock.enabled && clock.pending === 0)
                this.start = sample;
        }

        /// What went before tells nothing of what comes.
        private static isOtherCourse(before: Clock, now: Clock): boolean {
            return before.path !== now.path || before.enabled !== now.enabled || before.frequency !== now.frequency ||
                before.modulation !== now.modulation || now.time < before.time || (before.pending === 0) !== (now.pending === 0);
        }

        get motion(): Motion | null {
            const last = this.samples[this.samples.length - 1];
            if (last === undefined)
                return null;
            if (last.clock.pending !== 0)
                return "stepping";
            if (!last.clock.enabled)
                return "paused";
            const first = this.samples[0]!;
            return last.wall - first.wall > 1.5 && last.clock.frame === first.clock.frame ? "standing" : "running";
        }
        /// Frames in a second; NaN before it is known.
        get framesPerSecond(): number {
            return this.rate((clock) => clock.frame);
        }
        /// Simulated seconds in a second.
        get secondsPerSecond(): number {
            return this.rate((clock) => clock.time);
        }
        /// Simulated seconds by which the clock is ahead of where its modulation would have brought it; NaN unless it runs.
        get drift(): number {
            const last = this.samples[this.samples.length - 1];
            if (this.start === null || last === undefined || !last.clock.enabled || last.wall === this.start.wall)
                return NaN;
            return last.clock.time - this.start.clock.time - (last.wall - this.start.wall) * last.clock.modulation;
        }
        get driftSince(): number {
            const last = this.samples[this.samples.length - 1];
            return this.start === null || last === undefined ? 0 : last.wall - this.start.wall;
        }

        private rate(what: (clock: Clock) => number): number {
            const first = this.samples[0];
            const last = this.samples[this.samples.length - 1];
            if (first === undefined || last === undefined || last.wall - first.wall < 0.2)
                return NaN;
            return (what(last.clock) - what(first.clock)) / (last.wall - first.wall);
        }
    }

    // Curves.

    /// Numbers over one ascending axis of times, for a plot. A time that is before the last one takes back what came after it.
    export class Curves {
        private static readonly MaxPoints = 36000;
        readonly times: number[] = [];
        /// For each curve, as long as `times`; null where there is nothing.
        readonly columns: (number | null)[][] = [];

        addColumn(): void {
            this.columns.push(this.times.map(() => null));
        }
        removeColumn(index: number): void {
            this.columns.splice(index, 1);
        }
        push(time: number, values: readonly (number | null)[]): void {
            let end = this.times.length;
            while (end > 0 && this.times[end - 1]! >= time)
                --end;
            this.times.length = end;
            this.times.push(time);
            this.columns.forEach((column, i) => {
                column.length = end;
                const value = values[i] ?? null;
                column.push(value !== null && Number.isFinite(value) ? value : null);
            });
            // Not at each push: that would move them all.
            if (this.times.length > Curves.MaxPoints * 1.25) {
                const surplus = this.times.length - Curves.MaxPoints;
                this.times.splice(0, surplus);
                for (const column of this.columns)
                    column.splice(0, surplus);
            }
        }
        clear(): void {
            this.times.length = 0;
            for (const column of this.columns)
                column.length = 0;
        }
    }

    // Watches.

    export interface WatchOptions {
        readonly paths: readonly string[];
        readonly begin?: number;
        readonly count?: number;
        readonly stride?: number;
        /// Milliseconds, at least 16.
        readonly interval: number;
    }

    export interface Item {
        readonly path: string;
        readonly removed: boolean;
        readonly value: Value | null;
        readonly elements: protocol.Elements | null;
        readonly begin: number;
        readonly stride: number;
        readonly numElements: number;
    }

    export interface Update {
        /// Null where the simulation has no clock.
        readonly time: number | null;
        /// The path of the clock.
        readonly clock: string;
        readonly items: Item[];
    }

    /// One watch of the simulation for as long as it is not closed, over lost connections.
    export class Subscription {
        private options: WatchOptions | null = null;
        private watch = 0;
        private sequence = 0;

        /// @param error  gets what is wrong with the watch, "" once it has been added
        constructor(private readonly session: Session, private readonly update: (update: Update) => void,
                    private readonly error: (text: string) => void) { }

        /// Watches other paths, or null for none.
        set(options: WatchOptions | null): void {
            if (JSON.stringify(options) === JSON.stringify(this.options))
                return;
            this.remove();
            this.options = options !== null && options.paths.length > 0 ? options : null;
            this.add();
        }
        close(): void {
            this.set(null);
            this.session.subscriptions.delete(this);
        }

        /// Asks the simulation, also when a connection is new.
        add(): void {
            if (this.options === null || !this.session.isConnected)
                return;
            // A number of its own each time, so that updates on their way from the watch before are not taken for ours.
            const watch = this.watch = this.session.nextWatch();
            this.sequence = 0;
            this.session.watches.set(watch, this);
            this.session.request("Watch.Add", { watch, ...this.options }).then(({ header }) => {
                const missing = protocol.listOf(header.items).filter(({ kind }) => kind === "none").map(({ path }) => textOf(path));
                if (watch === this.watch)
                    this.error(missing.length === 0 ? "" : "Not there at present: " + missing.join(", "));
            }, (error: Error) => {
                this.session.watches.delete(watch);
                if (watch === this.watch && error instanceof protocol.Refusal)
                    this.error(error.message);
            });
        }
        private remove(): void {
            if (this.watch !== 0 && this.session.watches.delete(this.watch))
                this.session.request("Watch.Remove", { watch: this.watch }).catch(() => undefined); // the connection's end removes it
            this.watch = 0;
        }

        /// @throws Error where the update is malformed
        receive(header: Members, payload: Uint8Array): void {
            const sequence = numberOf(header.sequence);
            this.session.tell("Watch.Ack", { watch: this.watch, sequence });
            if (sequence <= this.sequence)
                return;
            this.sequence = sequence;
            const paths = this.options?.paths ?? [];
            const items: Item[] = [];
            for (const members of protocol.listOf(header.items)) {
                const path = paths[numberOf(members.item)];
                if (path === undefined)
                    throw new Error("an update of an item that is not watched");
                items.push({
                    path, removed: members.removed === true, value: valueOf(members.value),
                    elements: members.elementSize === undefined ? null : new protocol.Elements(members, payload),
                    begin: countOf(members.begin), stride: countOf(members.stride) || 1, numElements: countOf(members.numElements),
                });
            }
            const clock = protocol.isMembers(header.clock) ? numberOf(header.clock.time) : NaN;
            this.update({
                time: Number.isNaN(clock) ? null : clock, clock: protocol.isMembers(header.clock) ? textOf(header.clock.path) : "", items,
            });
        }
    }

    // Log.

    export const Levels = ["debug", "info", "warning", "error"] as const;
    export interface Line {
        readonly level: string;
        /// Seconds since 1970.
        readonly time: number;
        readonly text: string;
    }

    // Session.

    export interface Info {
        readonly version: string;
        readonly pid: number;
        readonly writable: boolean;
        /// What it answers; none where it does not tell.
        readonly uris: readonly unknown[];
    }

    const ClockInterval = 200;
    const MaxLines = 5000;

    /// The connection to one simulation, and what was seen of it.
    export class Session {
        readonly connection: protocol.Connection;
        readonly subscriptions = new Set<Subscription>();
        readonly watches = new Map<number, Subscription>();
        readonly pace = new Pace();
        readonly lines: Line[] = [];

        /// After it, `isConnected` and `detail` are new.
        readonly stateChanged = new Signal();
        readonly clocksChanged = new Signal();
        /// The path that was selected.
        readonly selected = new Signal<string>();
        readonly lineAdded = new Signal();
        readonly plotAsked = new Signal<readonly Quantity[]>();
        readonly particlesAsked = new Signal<Entry>();
        /// An entry with its children has come.
        readonly described = new Signal<Entry>();

        info: Info | null = null;
        clocks: Clock[] = [];
        selection = "";
        detail = "";
        /// Of the last answer, in ms; NaN before the first.
        answerTime = NaN;
        /// What became of the request for the clocks; "" if all is well.
        clockError = "";
        private chosenClock = "";
        private askedSince = NaN;
        private lastWatch = 0;
        private level = "info";

        constructor(surroundings: protocol.Surroundings, token: string, private readonly now: () => number) {
            this.connection = new protocol.Connection(surroundings, token, {
                state: (state, detail) => this.changeState(state, detail),
                fault: (text) => this.addLine({ level: "page", time: Date.now() / 1000, text }),
            });
            this.connection.onPush("Watch.Update", (message) =>
                this.watches.get(numberOf(message.header.watch))?.receive(message.header, message.payload));
            this.connection.onPush("Log.Line", ({ header }) => {
                const dropped = countOf(header.dropped);
                if (dropped > 0)
                    this.addLine({ level: "page", time: numberOf(header.time), text: dropped + " lines were left out" });
                this.addLine({ level: textOf(header.level), time: numberOf(header.time), text: textOf(header.text) });
            });
        }

        get isConnected(): boolean {
            return this.connection.state === "connected" && this.info !== null;
        }
        get isWritable(): boolean {
            return this.isConnected && this.info?.writable === true;
        }
        /// Whether the program may know of it; asking it all the same would be told in its log.
        offers(uri: string): boolean {
            const uris = this.info?.uris ?? [];
            return uris.length === 0 || uris.includes(uri);
        }
        /// Why nothing can be changed; "" if it can.
        get whyReadOnly(): string {
            return this.isWritable ? "" : this.isConnected ? "The program offers this simulation for reading only." : "There is no connection.";
        }
        /// Milliseconds since the oldest request for the clocks that has no answer yet; 0 without one.
        get waitingFor(): number {
            return Number.isNaN(this.askedSince) ? 0 : this.now() - this.askedSince;
        }

        request(uri: string, header: Members): Promise<protocol.Message> {
            return this.connection.request(uri, header);
        }
        tell(uri: string, header: Members): void {
            this.connection.tell(uri, header);
        }

        async describe(path: string, depth: number, begin = 0, count = 200): Promise<Entry> {
            const entry = entryOf((await this.request("Object.Describe", { path, depth, begin, count })).header);
            this.described.fire(entry);
            return entry;
        }
        /// The paths that a text may be the beginning of.
        async complete(text: string): Promise<string[]> {
            const { header } = await this.request("Object.Complete", { text, limit: 50 });
            // The simulation reads the text whatever its case, but paths only in their real spelling.
            const depth = text.split(".").length - 1;
            const matched = textOf(header.matchedPath).split(".");
            const head = (matched.length >= depth ? matched : text.split(".")).slice(0, depth);
            return Array.isArray(header.list)
                ? header.list.filter((name): name is string => typeof name === "string").map((name) => [...head, name].join(".")) : [];
        }
        async setValue(path: string, value: string): Promise<Value | null> {
            return valueOf((await this.request("Value.Set", { path, value })).header.value);
        }
        async control(action: string, members: Members): Promise<void> {
            const { header } = await this.request("Clock.Control", { path: this.clock?.path ?? "", action, ...members });
            if (!protocol.isMembers(header.clock))
                return;
            const changed = clockOf(header.clock);
            this.clocks = this.clocks.map((clock) => clock.path === changed.path ? changed : clock);
            this.takeClocks();
        }

        subscribe(update: (update: Update) => void, error: (text: string) => void): Subscription {
            const subscription = new Subscription(this, update, error);
            this.subscriptions.add(subscription);
            return subscription;
        }
        nextWatch(): number {
            return ++this.lastWatch;
        }

        select(path: string): void {
            this.selection = path;
            this.selected.fire(path);
        }

        get clock(): Clock | null {
            return this.clocks.find((clock) => clock.path === this.chosenClock) ?? this.clocks[0] ?? null;
        }
        chooseClock(path: string): void {
            this.chosenClock = path;
            this.takeClocks();
        }

        setLogLevel(level: string): void {
            this.level = level;
            if (this.isConnected)
                this.request("Log.Subscribe", { level }).catch((error: Error) => this.addFault("log", error));
        }
        addFault(where: string, error: Error): void {
            if (!(error instanceof protocol.Disconnected))
                this.addLine({ level: "page", time: Date.now() / 1000, text: where + ": " + error.message });
        }

        /// To be called again and again: asks for the clocks.
        poll(): void {
            if (!this.isConnected || !Number.isNaN(this.askedSince))
                return;
            const since = this.askedSince = this.now();
            this.request("Clock.List", {}).then(({ header }) => {
                this.clocks = protocol.listOf(header.clocks).map(clockOf);
                this.clockError = "";
                this.answerTime = this.now() - since;
                this.askedSince = NaN;
                this.takeClocks();
            }, (error: Error) => {
                this.clockError = error.message;
                this.askedSince = NaN;
                this.clocksChanged.fire();
            });
        }
        static get pollInterval(): number {
            return ClockInterval;
        }

        private takeClocks(): void {
            if (this.clock !== null)
                this.pace.add(this.now() / 1000, this.clock);
            this.clocksChanged.fire();
        }

        private addLine(line: Line): void {
            this.lines.push(line);
            if (this.lines.length > MaxLines * 1.25)
                this.lines.splice(0, this.lines.length - MaxLines);
            this.lineAdded.fire();
        }

        private changeState(state: protocol.State, detail: string): void {
            this.detail = detail;
            this.info = null;
            this.askedSince = NaN;
            this.watches.clear();
            if (state === "connected")
                this.greet();
            this.stateChanged.fire();
        }

        private greet(): void {
            this.request("System.Info", {}).then(({ header }) => {
                this.info = { version: textOf(header.version), pid: countOf(header.pid), writable: header.writable === true, uris: Array.isArray(header.uris) ? header.uris : [] };
                this.setLogLevel(this.level);
                for (const subscription of this.subscriptions)
                    subscription.add();
                this.poll();
                this.stateChanged.fire();
            }, (error: Error) => {
                this.detail = error.message;
                this.addFault("System.Info", error);
                this.stateChanged.fire();
            });
        }
    }
}

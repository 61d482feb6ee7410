/// Numbers of recordings over their whole run, as they come in pieces.
namespace series {
    import Members = protocol.Members;
    import numberOf = protocol.numberOf;
    import countOf = protocol.countOf;

    /// More than that is never asked for.
    const MaxRows = 250000;
    const MaxComponents = 1024;
    const NumPoints = 4000;
    /// A program has room for 16, for all that a page asks for.
    const MaxUnderWay = 8;

    export interface Datum {
        readonly path: string;
        /// Of an element of a buffer; null for a value.
        readonly index: number | null;
    }

    interface Column {
        components: number;
        /// Row by row.
        readonly numbers: number[];
        error: string;
        /// Of the instance that an index has named; null without one.
        id: unknown;
    }

    /// The rows of one series.
    export class Rows {
        private readonly allTimes: number[] = [];
        /// Of the rows that are drawn; null where it is to be found out.
        private kept: number[] | null = null;
        readonly items: Column[];
        isDone = false;
        numFrames = 0;
        framesPerPoint = 1;

        constructor(numItems: number) {
            this.items = Array.from({ length: numItems }, () => ({ components: 0, numbers: [], error: "", id: null }));
        }

        /// What the series will be.
        begin(header: Members): void {
            this.numFrames = countOf(header.numFrames);
            this.framesPerPoint = Math.max(1, numberOf(header.framesPerPoint) || 1);
            if (this.numFrames === 0)
                this.isDone = true;
        }
        /// The part of the rows that has come.
        get progress(): number {
            return this.isDone ? 1 : this.numFrames === 0 ? 0 : Math.min(1, this.allTimes.length * this.framesPerPoint / this.numFrames);
        }
        get isEmpty(): boolean {
            return this.allTimes.length === 0;
        }
        /// They rise: a time that is not above those before takes them back.
        get times(): number[] {
            return this.rows.map((row) => this.allTimes[row]!);
        }
        private get rows(): number[] {
            if (this.kept !== null)
                return this.kept;
            const kept: number[] = [];
            let next = Infinity;
            for (let row = this.allTimes.length - 1; row >= 0; --row)
                if (this.allTimes[row]! < next && this.allTimes[row]! > -Infinity) {
                    next = this.allTimes[row]!;
                    kept.push(row);
                }
            return this.kept = kept.reverse();
        }

        /// The next piece.
        /// @throws Error where it does not fit those before it, or its payload; then nothing has changed
        take(header: Members, payload: Uint8Array): void {
            const count = countOf(header.count);
            const first = countOf(header.first);
            if (first !== this.allTimes.length || this.isDone)
                throw new Error("rows of a series that do not follow one another");
            if (first + count > MaxRows)
                throw new Error("a series of too many rows");
            const times = Rows.numbers(protocol.isMembers(header.times) ? header.times : {}, count, payload);
            const parts = protocol.listOf(header.items).map((members) => {
                const item = this.items[numberOf(members.item)];
                const error = protocol.textOf(members.error);
                if (item === undefined)
                    throw new Error("rows of what was not asked for");
                const components = countOf(members.components);
                if (error === "" && (components > MaxComponents || first > 0 && item.components > 0 && components !== item.components))
                    throw new Error("rows of another size than those before them");
                return { item, error, id: members.id, components, numbers: error === "" ? Rows.numbers(members, count * components, payload) : [] };
            });
            for (const time of times)
                this.allTimes.push(time);
            this.kept = null;
            for (const { item, error, id, components, numbers } of parts) {
                if (error !== "") {
                    item.error = error;
                    continue;
                }
                item.components = components;
                item.id = id ?? item.id;
                // Pieces that left it out.
                while (item.numbers.length < first * components)
                    item.numbers.push(NaN);
                for (const number of numbers)
                    item.numbers.push(number);
            }
            this.isDone = header.done === true;
        }
        private static numbers(members: Members, count: number, payload: Uint8Array): number[] {
            const offset = countOf(members.byteOffset);
            if (countOf(members.numBytes) !== 8 * count || offset + 8 * count > payload.byteLength)
                throw new Error("rows of a series that do not fit their bytes");
            const view = new DataView(payload.buffer, payload.byteOffset + offset, 8 * count);
            return Array.from({ length: count }, (_, i) => view.getFloat64(8 * i, true));
        }

        /// One number of each row; null where there is none.
        column(index: number, component: number): (number | null)[] {
            const { components, numbers } = this.items[index]!;
            return this.rows.map((row) => {
                const number = component < components ? numbers[row * components + component] : undefined;
                return number !== undefined && Number.isFinite(number) ? number : null;
            });
        }
    }

    /// Curves over their own times.
    export interface Part {
        readonly times: readonly number[];
        readonly columns: readonly (readonly (number | null)[])[];
    }

    /// Puts all over one axis of times that rise. Where a part has no row of its own, what it had before holds; ahead of its first and
    /// behind its last there is nothing.
    export function join(parts: readonly Part[]): { times: number[]; columns: (number | null)[][] } {
        const times: number[] = [];
        const columns: (number | null)[][] = parts.flatMap((part) => part.columns.map(() => []));
        const next = parts.map(() => 0);
        for (;;) {
            let time = Infinity;
            parts.forEach((part, p) => time = Math.min(time, part.times[next[p]!] ?? Infinity));
            if (time === Infinity)
                return { times, columns };
            let column = 0;
            parts.forEach((part, p) => {
                while (part.times[next[p]!] === time)
                    ++next[p]!;
                const row = next[p]! - 1;
                const holds = row >= 0 && (next[p]! < part.times.length || part.times[row] === time);
                for (const numbers of part.columns)
                    columns[column++]!.push(holds ? numbers[row] ?? null : null);
            });
            times.push(time);
        }
    }

    /// What is drawn of one recording. It is asked for again when something else is wanted of it, or when the recording has grown.
    export class Feed {
        /// What has come; null before anything has.
        rows: Rows | null = null;
        error = "";
        /// What is on its way, and by which number.
        private coming: { readonly number: number; readonly rows: Rows } | null = null;
        private data: readonly Datum[] = [];
        private range: tracks.Span | null = null;
        /// What has come is of another range than what is wanted.
        private isOfOtherRange = false;
        /// Of the instances that indices have named, by their data.
        private readonly ids = new Map<string, unknown>();
        private numFrames = -1;
        private isWaiting = false;
        private isClosed = false;

        /// @param changed  is called when there is more, or an error
        constructor(private readonly desk: Desk, readonly track: number, private readonly changed: () => void) {
            desk.feeds.add(this);
        }

        /// @param range  null for the whole run
        set(data: readonly Datum[], range: tracks.Span | null): void {
            const isSame = data.length === this.data.length && data.every(({ path, index }, i) => path === this.data[i]!.path && index === this.data[i]!.index);
            const isSameRange = range?.start === this.range?.start && range?.end === this.range?.end;
            if (isSame && isSameRange)
                return;
            // Curves that stay are drawn until what replaces them has begun to come.
            if (!isSame)
                this.rows = null;
            this.isOfOtherRange = !isSameRange;
            this.data = data;
            this.range = range;
            this.ask();
        }
        close(): void {
            this.isClosed = true;
            this.stop();
            this.desk.feeds.delete(this);
        }
        get isComing(): boolean {
            return this.isWaiting || this.coming !== null;
        }
        get progress(): number {
            return this.coming?.rows.progress ?? (this.isWaiting ? 0 : 1);
        }
        indexOf(path: string, index: number | null): number {
            return this.data.findIndex((datum) => datum.path === path && datum.index === index);
        }

        /// Asks in its turn.
        ask(): void {
            this.stop();
            if (this.isClosed || this.data.length === 0)
                return;
            this.isWaiting = true;
            this.desk.next();
        }
        /// The recording may have grown, or may be there again.
        look(): void {
            const track = this.desk.tracks.get(this.track);
            if (track === null || !track.isOpen) {
                if (this.coming !== null) {
                    this.stop();
                    this.numFrames = -1;
                }
                return;
            }
            if (this.isComing || track.numFrames === this.numFrames)
                return;
            const before = this.rows?.times[this.rows.times.length - 1] ?? -Infinity;
            if (this.range === null || this.rows === null || this.range.end > before)
                this.ask();
        }
        get canStart(): boolean {
            return this.isWaiting && this.desk.tracks.get(this.track)?.isOpen === true;
        }

        start(): void {
            this.isWaiting = false;
            this.numFrames = this.desk.tracks.get(this.track)!.numFrames;
            const rows = new Rows(this.data.length);
            // An instance is followed by its id, wherever it stands by now.
            const items = this.data.map(({ path, index }) => index === null ? { path } : { path, index, id: this.ids.get(path + "#" + index) });
            const number = this.desk.nextNumber();
            this.coming = { number, rows };
            this.desk.underWay.set(number, this);
            const isOurs = (): boolean => this.coming?.number === number;
            this.desk.session.request("Track.Series", { id: this.track, series: number, items, ...this.range, points: NumPoints }).then(({ header }) => {
                if (!isOurs())
                    return;
                rows.begin(header);
                this.error = "";
                this.settle();
            }, (error: Error) => {
                if (!isOurs())
                    return;
                if (error instanceof protocol.Refusal)
                    this.error = error.message;
                this.finish();
            });
        }
        /// @throws Error where the piece is malformed
        receive(header: Members, payload: Uint8Array): void {
            try {
                this.coming!.rows.take(header, payload);
            } catch (error) {
                this.error = (error as Error).message;
                this.stop();
                this.changed();
                throw error;
            }
            this.coming!.rows.items.forEach(({ id }, i) => {
                if (id !== null)
                    this.ids.set(this.data[i]!.path + "#" + this.data[i]!.index, id);
            });
            this.settle();
        }

        /// What came is shown at once where it replaces nothing or another range, else when all is there.
        private settle(): void {
            const { rows } = this.coming!;
            const isBetter = !this.isOfOtherRange && this.rows !== null && this.rows !== rows;
            if (rows.isDone || !rows.isEmpty && !isBetter) {
                this.rows = rows;
                this.isOfOtherRange = false;
            }
            if (rows.isDone)
                this.finish();
            else
                this.changed();
        }
        private finish(): void {
            this.release();
            this.changed();
        }
        private stop(): void {
            this.isWaiting = false;
            const number = this.release();
            if (number !== null)
                this.desk.session.request("Track.StopSeries", { id: this.track, series: number }).catch(() => undefined); // it may have ended meanwhile
        }
        private release(): number | null {
            if (this.coming === null)
                return null;
            const { number } = this.coming;
            this.coming = null;
            this.desk.underWay.delete(number);
            this.desk.next();
            return number;
        }
    }

    /// Hands pieces to whom they are for, and lets only so many be under way.
    export class Desk {
        readonly feeds = new Set<Feed>();
        readonly underWay = new Map<number, Feed>();
        private lastNumber = 0;
        private isConnected = false;

        constructor(readonly session: model.Session, readonly tracks: tracks.Tracks) {
            session.connection.onPush("Track.Points", ({ header, payload }) => this.underWay.get(numberOf(header.series))?.receive(header, payload));
            tracks.changed.add(() => {
                const isNew = session.isConnected && !this.isConnected;
                this.isConnected = session.isConnected;
                this.feeds.forEach((feed) => isNew ? feed.ask() : feed.look());
                this.next();
            });
        }

        nextNumber(): number {
            return ++this.lastNumber;
        }
        next(): void {
            for (const feed of this.feeds) {
                if (this.underWay.size >= MaxUnderWay || !this.session.isConnected)
                    return;
                if (feed.canStart)
                    feed.start();
            }
        }
    }
}

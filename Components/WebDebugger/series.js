"use strict";
/// Numbers of recordings over their whole run, as they come in pieces.
var series;
(function (series) {
    var numberOf = protocol.numberOf;
    var countOf = protocol.countOf;
    /// More than that is never asked for.
    const MaxRows = 250000;
    const MaxComponents = 1024;
    const NumPoints = 4000;
    /// A program has room for 16, for all that a page asks for.
    const MaxUnderWay = 8;
    /// The rows of one series.
    class Rows {
        constructor(numItems) {
            this.allTimes = [];
            /// Of the rows that are drawn; null where it is to be found out.
            this.kept = null;
            this.isDone = false;
            this.numFrames = 0;
            this.framesPerPoint = 1;
            this.items = Array.from({ length: numItems }, () => ({ components: 0, numbers: [], error: "", id: null }));
        }
        /// What the series will be.
        begin(header) {
            this.numFrames = countOf(header.numFrames);
            this.framesPerPoint = Math.max(1, numberOf(header.framesPerPoint) || 1);
            if (this.numFrames === 0)
                this.isDone = true;
        }
        /// The part of the rows that has come.
        get progress() {
            return this.isDone ? 1 : this.numFrames === 0 ? 0 : Math.min(1, this.allTimes.length * this.framesPerPoint / this.numFrames);
        }
        get isEmpty() {
            return this.allTimes.length === 0;
        }
        /// They rise: a time that is not above those before takes them back.
        get times() {
            return this.rows.map((row) => this.allTimes[row]);
        }
        get rows() {
            if (this.kept !== null)
                return this.kept;
            const kept = [];
            let next = Infinity;
            for (let row = this.allTimes.length - 1; row >= 0; --row)
                if (this.allTimes[row] < next && this.allTimes[row] > -Infinity) {
                    next = this.allTimes[row];
                    kept.push(row);
                }
            return this.kept = kept.reverse();
        }
        /// The next piece.
        /// @throws Error where it does not fit those before it, or its payload; then nothing has changed
        take(header, payload) {
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
        static numbers(members, count, payload) {
            const offset = countOf(members.byteOffset);
            if (countOf(members.numBytes) !== 8 * count || offset + 8 * count > payload.byteLength)
                throw new Error("rows of a series that do not fit their bytes");
            const view = new DataView(payload.buffer, payload.byteOffset + offset, 8 * count);
            return Array.from({ length: count }, (_, i) => view.getFloat64(8 * i, true));
        }
        /// One number of each row; null where there is none.
        column(index, component) {
            const { components, numbers } = this.items[index];
            return this.rows.map((row) => {
                const number = component < components ? numbers[row * components + component] : undefined;
                return number !== undefined && Number.isFinite(number) ? number : null;
            });
        }
    }
    series.Rows = Rows;
    /// Puts all over one axis of times that rise. Where a part has no row of its own, what it had before holds; ahead of its first and
    /// behind its last there is nothing.
    function join(parts) {
        const times = [];
        const columns = parts.flatMap((part) => part.columns.map(() => []));
        const next = parts.map(() => 0);
        for (;;) {
            let time = Infinity;
            parts.forEach((part, p) => time = Math.min(time, part.times[next[p]] ?? Infinity));
            if (time === Infinity)
                return { times, columns };
            let column = 0;
            parts.forEach((part, p) => {
                while (part.times[next[p]] === time)
                    ++next[p];
                const row = next[p] - 1;
                const holds = row >= 0 && (next[p] < part.times.length || part.times[row] === time);
                for (const numbers of part.columns)
                    columns[column++].push(holds ? numbers[row] ?? null : null);
            });
            times.push(time);
        }
    }
    series.join = join;
    /// What is drawn of one recording. It is asked for again when something else is wanted of it, or when the recording has grown.
    class Feed {
        /// @param changed  is called when there is more, or an error
        constructor(desk, track, changed) {
            this.desk = desk;
            this.track = track;
            this.changed = changed;
            /// What has come; null before anything has.
            this.rows = null;
            this.error = "";
            /// What is on its way, and by which number.
            this.coming = null;
            this.data = [];
            this.range = null;
            /// What has come is of another range than what is wanted.
            this.isOfOtherRange = false;
            /// Of the instances that indices have named, by their data.
            this.ids = new Map();
            this.numFrames = -1;
            this.isWaiting = false;
            this.isClosed = false;
            desk.feeds.add(this);
        }
        /// @param range  null for the whole run
        set(data, range) {
            const isSame = data.length === this.data.length && data.every(({ path, index }, i) => path === this.data[i].path && index === this.data[i].index);
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
        close() {
            this.isClosed = true;
            this.stop();
            this.desk.feeds.delete(this);
        }
        get isComing() {
            return this.isWaiting || this.coming !== null;
        }
        get progress() {
            return this.coming?.rows.progress ?? (this.isWaiting ? 0 : 1);
        }
        indexOf(path, index) {
            return this.data.findIndex((datum) => datum.path === path && datum.index === index);
        }
        /// Asks in its turn.
        ask() {
            this.stop();
            if (this.isClosed || this.data.length === 0)
                return;
            this.isWaiting = true;
            this.desk.next();
        }
        /// The recording may have grown, or may be there again.
        look() {
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
        get canStart() {
            return this.isWaiting && this.desk.tracks.get(this.track)?.isOpen === true;
        }
        start() {
            this.isWaiting = false;
            this.numFrames = this.desk.tracks.get(this.track).numFrames;
            const rows = new Rows(this.data.length);
            // An instance is followed by its id, wherever it stands by now.
            const items = this.data.map(({ path, index }) => index === null ? { path } : { path, index, id: this.ids.get(path + "#" + index) });
            const number = this.desk.nextNumber();
            this.coming = { number, rows };
            this.desk.underWay.set(number, this);
            const isOurs = () => this.coming?.number === number;
            this.desk.session.request("Track.Series", { id: this.track, series: number, items, ...this.range, points: NumPoints }).then(({ header }) => {
                if (!isOurs())
                    return;
                rows.begin(header);
                this.error = "";
                this.settle();
            }, (error) => {
                if (!isOurs())
                    return;
                if (error instanceof protocol.Refusal)
                    this.error = error.message;
                this.finish();
            });
        }
        /// @throws Error where the piece is malformed
        receive(header, payload) {
            try {
                this.coming.rows.take(header, payload);
            }
            catch (error) {
                this.error = error.message;
                this.stop();
                this.changed();
                throw error;
            }
            this.coming.rows.items.forEach(({ id }, i) => {
                if (id !== null)
                    this.ids.set(this.data[i].path + "#" + this.data[i].index, id);
            });
            this.settle();
        }
        /// What came is shown at once where it replaces nothing or another range, else when all is there.
        settle() {
            const { rows } = this.coming;
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
        finish() {
            this.release();
            this.changed();
        }
        stop() {
            this.isWaiting = false;
            const number = this.release();
            if (number !== null)
                this.desk.session.request("Track.StopSeries", { id: this.track, series: number }).catch(() => undefined); // it may have ended meanwhile
        }
        release() {
            if (this.coming === null)
                return null;
            const { number } = this.coming;
            this.coming = null;
            this.desk.underWay.delete(number);
            this.desk.next();
            return number;
        }
    }
    series.Feed = Feed;
    /// Hands pieces to whom they are for, and lets only so many be under way.
    class Desk {
        constructor(session, tracks) {
            this.session = session;
            this.tracks = tracks;
            this.feeds = new Set();
            this.underWay = new Map();
            this.lastNumber = 0;
            this.isConnected = false;
            session.connection.onPush("Track.Points", ({ header, payload }) => this.underWay.get(numberOf(header.series))?.receive(header, payload));
            tracks.changed.add(() => {
                const isNew = session.isConnected && !this.isConnected;
                this.isConnected = session.isConnected;
                this.feeds.forEach((feed) => isNew ? feed.ask() : feed.look());
                this.next();
            });
        }
        nextNumber() {
            return ++this.lastNumber;
        }
        next() {
            for (const feed of this.feeds) {
                if (this.underWay.size >= MaxUnderWay || !this.session.isConnected)
                    return;
                if (feed.canStart)
                    feed.start();
            }
        }
    }
    series.Desk = Desk;
})(series || (series = {}));

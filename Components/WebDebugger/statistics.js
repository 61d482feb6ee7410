"use strict";
/// What takes the time, from two looks at the statistics of the program. And where its frames go.
var statistics;
(function (statistics) {
    var textOf = protocol.textOf;
    var numberOf = protocol.numberOf;
    /// The time of a task is that of its runs, which its other times are parts of. Times of others are named.
    const OfATask = "WallTime";
    function sumsOf(header) {
        const sums = new Map();
        for (const provider of protocol.listOf(header.providers)) {
            const path = textOf(provider.path) || textOf(provider.name);
            const name = textOf(provider.name) || path || "(without a name)";
            const all = protocol.listOf(provider.data);
            const isTask = all.some((datum) => datum.name === OfATask);
            for (const datum of all) {
                const [accumulated, count] = [numberOf(datum.accumulated), numberOf(datum.count)];
                if (datum.timing !== true || isTask && datum.name !== OfATask || !Number.isFinite(accumulated) || !Number.isFinite(count))
                    continue;
                const what = textOf(datum.name);
                // Several may have the same path: they come in the same order each time.
                let key = path + "\n" + what;
                while (sums.has(key))
                    key += "\n";
                sums.set(key, { name: what === OfATask || what === "" ? name : name + ": " + what, path, accumulated, count });
            }
        }
        return sums;
    }
    class Times {
        constructor() {
            this.isEnabled = false;
            /// Those that took time between the last two looks, the longest first.
            this.rows = [];
            this.sums = new Map();
            this.wall = NaN;
        }
        /// @param wall  seconds, by any clock that only goes forward
        take(header, wall) {
            const sums = sumsOf(header);
            const seconds = wall - this.wall;
            this.isEnabled = header.enabled === true;
            this.rows = [];
            for (const [key, now] of sums) {
                const before = this.sums.get(key);
                const count = now.count - (before?.count ?? NaN);
                const milliseconds = now.accumulated - (before?.accumulated ?? NaN);
                // Where they went back, somebody has cleared them.
                if (seconds > 0 && count > 0 && milliseconds >= 0)
                    this.rows.push({ name: now.name, path: now.path, each: milliseconds / count, runs: count / seconds, perSecond: milliseconds / seconds });
            }
            this.rows.sort((a, b) => b.perSecond - a.perSecond);
            this.sums = sums;
            this.wall = wall;
        }
        /// What comes next has nothing to be compared with.
        forget() {
            this.rows = [];
            this.sums.clear();
            this.wall = NaN;
        }
    }
    statistics.Times = Times;
    function streamsOf(value) {
        return protocol.listOf(value).map((members) => ({
            name: textOf(members.name), port: protocol.countOf(members.port), numFrames: protocol.countOf(members.numFrames),
            numLeftOut: protocol.countOf(members.numLeftOut), numClients: protocol.countOf(members.numClients),
            numQueuedBytes: protocol.countOf(members.numQueuedBytes),
        }));
    }
    statistics.streamsOf = streamsOf;
    /// Asks for both.
    class Watcher {
        constructor(session, now) {
            this.session = session;
            this.now = now;
            this.times = new Times();
            this.streams = [];
            this.changed = new model.Signal();
            /// Whether the program answers; null before it is known.
            this.isOffered = null;
            this.isAsking = false;
            this.isConnected = false;
            session.stateChanged.add(() => {
                if (session.isConnected && !this.isConnected) {
                    this.isOffered = null;
                    this.isAsking = false;
                    this.times.forget();
                    this.poll();
                }
                this.isConnected = session.isConnected;
            });
        }
        /// To be called again and again.
        poll() {
            if (!this.session.isConnected || this.isAsking || this.isOffered === false)
                return;
            if (!this.session.offers("Statistics.List")) {
                this.isOffered = false;
                this.changed.fire();
                return;
            }
            this.isAsking = true;
            this.ask().catch((error) => {
                if (error instanceof protocol.Refusal)
                    this.isOffered = false;
            }).finally(() => {
                this.isAsking = false;
                this.changed.fire();
            });
        }
        static get pollInterval() {
            return 1000;
        }
        async ask() {
            const [list, info] = await Promise.all([this.session.request("Statistics.List", {}), this.session.request("System.Info", {})]);
            this.isOffered = true;
            this.times.take(list.header, this.now() / 1000);
            this.streams = streamsOf(info.header.streams);
        }
    }
    statistics.Watcher = Watcher;
})(statistics || (statistics = {}));

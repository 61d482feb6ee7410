// Recordings, series of their numbers and statistics, as the page takes them, without a page.
"use strict";
const assert = require("node:assert");
const { test } = require("node:test");
const { SessionBench, settle } = require("./bench.js");

const { model, tracks, series, statistics } = globalThis;

function entry(id, more = {}) {
    const { start = 0, end = 10, time = 0, ...members } = more;
    return {
        id, name: "run " + id, live: false, open: true, path: "Recording" + id, session: "S", file: "f.zelJournal", closed: true, numFrames: 101, firstFrame: 0, lastFrame: 100,
        startTime: start, endTime: end, timeStep: 0.1, position: { frame: Math.round(10 * time), time, index: Math.round(10 * time) }, playing: false, rate: 1, stride: 1,
        loop: false, range: { start, end }, error: "", ...members,
    };
}

class TracksBench extends SessionBench {
    static async start(...entries) {
        const bench = new TracksBench();
        bench.all = new tracks.Tracks(bench.session);
        bench.desk = new series.Desk(bench.session, bench.all);
        bench.session.connection.connect();
        await bench.greet();
        await bench.answer("Track.List", { tracks: entries });
        return bench;
    }
    /// What was asked of the tracks since the last call, in short.
    get asked() {
        const all = this.sent("Track.Control");
        const fresh = all.slice(this.seen ?? 0);
        this.seen = all.length;
        return fresh.map(({ id, action, ...members }) => [id, action, ...Object.values(members)]);
    }
    async answerControls(...entries) {
        for (const track of entries)
            await this.answer("Track.Control", { track });
    }
    tell(track) {
        this.push("Track.State", { track });
    }
}

// Tracks.

test("the entry of a track is read", async () => {
    const track = tracks.trackOf(entry(3, { time: 2, playing: true, rate: -2, loop: true, range: { start: 1, end: 4 } }));
    assert.deepStrictEqual([track.id, track.isPlaying, track.rate, track.loops, track.range, track.run], [3, true, -2, true, { start: 1, end: 4 }, { start: 0, end: 10 }]);
    assert.deepStrictEqual(track.position, { frame: 20, time: 2, index: 20 });
});
test("members that are missing or make no sense leave a track that can be shown", () => {
    const track = tracks.trackOf({ id: 0, name: {}, live: 1, open: "yes", path: 7, numFrames: -3, startTime: "nan", endTime: "inf", position: { time: "x" }, rate: 0, range: [1], error: null, stride: 0.5 });
    assert.deepStrictEqual(track, {
        id: 0, name: "track 0", isLive: false, isOpen: false, path: "7", session: "", file: "", isClosed: false, numFrames: 0, run: { start: 0, end: 0 }, timeStep: 0,
        position: null, isPlaying: false, rate: 1, stride: 1, loops: false, range: { start: 0, end: 0 }, error: "",
    });
    assert.deepStrictEqual(tracks.trackOf(entry(1, { range: { start: 8, end: 2 } })).range, { start: 0, end: 10 });
});
test("what has no number of its own is no track", async () => {
    for (const id of [undefined, -1, 0.5, "a", null, {}])
        assert.strictEqual(tracks.trackOf(entry(id)), null);
    const bench = await TracksBench.start(entry(1), null, 7, {}, entry(1, { name: "again" }), entry(2));
    assert.deepStrictEqual(bench.all.list.map(({ id, name }) => [id, name]), [[1, "run 1"], [2, "run 2"]]);
});
test("a program without tracks is not asked again before it was connected anew", async () => {
    const bench = new SessionBench();
    const all = new tracks.Tracks(bench.session);
    bench.session.connection.connect();
    await bench.greet();
    await bench.refuse("Track.List", "No message handler registered");
    all.poll();
    assert.strictEqual(bench.sent("Track.List").length, 1);
    bench.socket.onclose({ code: 1006 });
    bench.later();
    await bench.greet();
    assert.strictEqual(bench.sent("Track.List").length, 1); // of the new socket
});
test("a program that tells what it answers is asked for nothing else", async () => {
    const bench = new SessionBench();
    new tracks.Tracks(bench.session);
    const watcher = new statistics.Watcher(bench.session, () => 0);
    bench.session.connection.connect();
    await bench.greet({ uris: ["System.Info", 7] });
    assert.deepStrictEqual([bench.sent("Track.List"), bench.sent("Statistics.List"), watcher.isOffered], [[], [], false]);
});
test("paths lead into the open recording that they lie below", async () => {
    const bench = await TracksBench.start(entry(1), entry(2, { open: false }), entry(3, { live: true, path: "" }), entry(4, { path: "" }));
    const owner = (path) => bench.all.ownerOf(path)?.id ?? null;
    assert.deepStrictEqual(["Recording1.a", "Recording1", "Recording12.a", "Recording2.a", "a", ""].map(owner), [1, 1, null, null, null, null]);
});
test("a quantity of one recording is that of all, unless it is not wanted", async () => {
    const bench = await TracksBench.start(entry(1), entry(2), entry(3, { open: false }));
    const [quantity] = model.quantitiesOf("Recording2.Sim.energy", 3);
    const short = (sources) => sources.map(({ quantity: { path, label }, track, name }) => [path, label, track, name]);
    assert.deepStrictEqual(short(bench.all.sourcesOf(quantity)), [["Recording1.Sim.energy", "Sim.energy", 1, "run 1"], ["Recording2.Sim.energy", "Sim.energy", 2, "run 2"]]);
    bench.all.comparesAll = false;
    assert.deepStrictEqual(short(bench.all.sourcesOf(quantity)), [["Recording2.Sim.energy", "Sim.energy", 2, "run 2"]]);
    assert.deepStrictEqual(short(bench.all.sourcesOf(model.quantitiesOf("Sim.energy", 3)[0])), [["Sim.energy", "Sim.energy", null, ""]]);
});
test("recordings that are opened and closed are told", async () => {
    const bench = await TracksBench.start(entry(1, { open: false }));
    const told = [];
    bench.all.opened.add(({ id, isOpen }) => told.push([id, isOpen]));
    bench.tell(entry(1));
    bench.tell(entry(1, { time: 3 }));
    bench.tell(entry(1, { open: false }));
    bench.tell(entry(5));
    assert.deepStrictEqual(told, [[1, true], [1, false], [5, true]]);
});
test("a push without a track changes nothing", async () => {
    const bench = await TracksBench.start(entry(1));
    for (const header of [{}, { track: null }, { track: [] }, { track: { id: "x" } }])
        bench.push("Track.State", header);
    assert.deepStrictEqual([bench.all.list.length, bench.lines], [1, []]);
});
test("all open recordings go to a time together", async () => {
    const bench = await TracksBench.start(entry(1), entry(2), entry(3, { open: false }), entry(4, { live: true }));
    bench.all.seekTime(2.5);
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 2.5], [2, "seekTime", 2.5]]);
    await bench.answerControls(entry(1, { time: 2.5 }), entry(2, { time: 2.5 }));
    assert.strictEqual(bench.all.time, 2.5);
});
test("of many times that are wanted, those that came while it was on its way are skipped but for the last", async () => {
    const bench = await TracksBench.start(entry(1));
    for (const time of [1, 2, 3, 4])
        bench.all.seekTime(time);
    assert.deepStrictEqual([bench.asked, bench.all.time], [[[1, "seekTime", 1]], 4]);
    await bench.answerControls(entry(1, { time: 1 }));
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 4]]);
    await bench.answerControls(entry(1, { time: 4 }));
    assert.deepStrictEqual([bench.asked, bench.all.time], [[], 4]);
});
test("a recording that waits at its own end does not tell the time", async () => {
    const bench = await TracksBench.start(entry(1, { end: 5, time: 5 }), entry(2, { time: 7 }), entry(3, { start: 8, time: 8 }));
    assert.deepStrictEqual([bench.all.time, bench.all.teller.id, bench.all.run], [7, 2, { start: 0, end: 10 }]);
    const other = await TracksBench.start(entry(1, { end: 2, time: 1 }), entry(2, { start: 8, end: 90, time: 8 }));
    assert.strictEqual(other.all.time, 1);
});
test("recordings play together from one time, and those that begin later join", async () => {
    const bench = await TracksBench.start(entry(1, { end: 5, time: 2 }), entry(2, { start: 4, end: 9, time: 4 }));
    bench.all.play(2);
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 2], [2, "seekTime", 2]]);
    await bench.answerControls(entry(1, { end: 5, time: 2 }), entry(2, { start: 4, end: 9, time: 4 }));
    assert.deepStrictEqual(bench.asked, [[1, "play", 2]]);
    await bench.answerControls(entry(1, { end: 5, time: 2, playing: true, rate: 2 }));
    bench.tell(entry(1, { end: 5, time: 3.9, playing: true, rate: 2 }));
    assert.deepStrictEqual(bench.asked, []);
    bench.tell(entry(1, { end: 5, time: 4.1, playing: true, rate: 2 }));
    assert.deepStrictEqual(bench.asked, [[2, "play", 2]]);
    await bench.answerControls(entry(2, { start: 4, end: 9, time: 4, playing: true, rate: 2 }));
    bench.tell(entry(1, { end: 5, time: 5, rate: 2 }));
    bench.tell(entry(2, { start: 4, end: 9, time: 9, rate: 2 }));
    assert.deepStrictEqual(bench.asked, []);
});
test("several that play in a loop begin again when the last of them has come to its end", async () => {
    const bench = await TracksBench.start(entry(1, { end: 5, time: 5 }), entry(2, { time: 9 }));
    bench.all.setLoop(true);
    assert.deepStrictEqual(bench.asked, [[1, "loop", false], [2, "loop", false]]);
    await bench.answerControls(entry(1, { end: 5, time: 5 }), entry(2, { time: 9 }));
    assert.strictEqual(bench.all.loops, true);
    bench.all.play();
    await bench.answerControls(entry(1, { end: 5, time: 5 }), entry(2, { time: 9 }));
    await bench.answerControls(entry(2, { time: 9, playing: true }));
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 9], [2, "seekTime", 9], [2, "play", 1]]);
    bench.tell(entry(2, { time: 10 }));
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 0], [2, "seekTime", 0]]);
});
test("what loops together loops on by itself when it is left alone", async () => {
    const bench = await TracksBench.start(entry(1, { time: 5 }), entry(2, { time: 5 }));
    bench.all.setLoop(true);
    await bench.answerControls(entry(1, { time: 5 }), entry(2, { time: 5 }));
    bench.all.closeJournal(bench.all.get(2));
    await bench.answerControls(entry(2, { open: false, position: null }));
    assert.deepStrictEqual(bench.asked, [[1, "loop", false], [2, "loop", false], [2, "close"], [1, "loop", true]]);
    await bench.answerControls(entry(1, { time: 5, loop: true }));

    const gone = await TracksBench.start(entry(1), entry(2));
    gone.all.setLoop(true);
    await gone.answerControls(entry(1), entry(2));
    gone.tell(entry(2, { open: false, position: null })); // somebody else has closed it
    gone.all.play();
    await gone.answerControls(entry(1, { loop: true }));
    assert.deepStrictEqual(gone.asked.slice(2), [[1, "loop", true], [1, "play", 1]]);
});
test("what somebody else has paused is not played on", async () => {
    const bench = await TracksBench.start(entry(1, { time: 2 }), entry(2, { time: 2 }));
    bench.all.play();
    await bench.answerControls(entry(1, { time: 2 }), entry(2, { time: 2 }), entry(1, { time: 2, playing: true }), entry(2, { time: 2, playing: true }));
    assert.strictEqual(bench.asked.length, 4);
    bench.tell(entry(1, { time: 3 }));
    bench.tell(entry(2, { time: 3, playing: true }));
    assert.deepStrictEqual(bench.asked, []);
});
test("one recording alone is played, looped and begun again by the program", async () => {
    const bench = await TracksBench.start(entry(1, { time: 10 }));
    bench.all.play();
    bench.all.setLoop(true);
    assert.deepStrictEqual(bench.asked, [[1, "play", 1], [1, "loop", true]]);
});
test("runs that wall time would play for ever, or in no time, play by frames until somebody has chosen a rate", async () => {
    const rateOf = async (end, numFrames, more = {}) => (await TracksBench.start(entry(1, { end, numFrames, ...more }))).all.rate;
    assert.deepStrictEqual([await rateOf(600, 6001), await rateOf(1, 1001), await rateOf(540000, 901), await rateOf(0.001, 1001), await rateOf(1e9, 1), await rateOf(0, 0),
        await rateOf(540000, 901, { rate: -2 })], [1, 1, 36000, 0.00006, 1, 1, -2]);
    const bench = await TracksBench.start(entry(1, { end: 540000, numFrames: 901 }));
    bench.all.setRate(5);
    bench.all.play();
    assert.deepStrictEqual(bench.asked, [[1, "play", 5]]);
});
test("a step of the one that tells the time takes the others along", async () => {
    const bench = await TracksBench.start(entry(1, { end: 5, time: 5 }), entry(2, { time: 7 }));
    bench.all.step(-1);
    assert.deepStrictEqual(bench.asked, [[2, "step", -1]]);
    await bench.answerControls(entry(2, { time: 6.9 }));
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 6.9]]);
});
test("a range is that of all, without an end that is that of the run, and without one all is played", async () => {
    const bench = await TracksBench.start(entry(1, { end: 5 }), entry(2, { start: 3 }));
    bench.all.setRange({ start: 1, end: 8 });
    bench.all.setRange({ start: 1, end: 10 });
    bench.all.setRange(null);
    assert.deepStrictEqual(bench.asked, [[1, "range", 1, 8], [2, "range", 1, 8], [1, "range", 1], [2, "range", 1], [1, "range"], [2, "range"]]);
});
test("a recording without frames in the range is not played, and limits nothing", async () => {
    const bench = await TracksBench.start(entry(1, { end: 5, time: 5, range: { start: 6, end: 8 } }), entry(2, { time: 7, range: { start: 6, end: 8 } }));
    assert.deepStrictEqual([bench.all.range, bench.all.hasRange], [{ start: 6, end: 8 }, true]);
    bench.all.play();
    await bench.answerControls(entry(1, { end: 5, time: 5, range: { start: 6, end: 8 } }), entry(2, { time: 7, range: { start: 6, end: 8 } }));
    assert.deepStrictEqual(bench.asked, [[1, "seekTime", 7], [2, "seekTime", 7], [2, "play", 1]]);
});
test("a range without ends is that of the run", () => {
    assert.deepStrictEqual(tracks.trackOf(entry(1, { range: { start: null, end: 4 } })).range, { start: 0, end: 4 });
});
test("a refusal is told by the name of the recording, and ends playing together", async () => {
    const bench = await TracksBench.start(entry(1, { time: 2 }), entry(2, { time: 2 }));
    bench.all.play();
    await bench.answerControls(entry(1, { time: 2 }), entry(2, { time: 2 }), entry(1, { time: 2, playing: true }));
    await bench.refuse("Track.Control", "frame 20 can not be read");
    assert.strictEqual(bench.all.error, "run 2: frame 20 can not be read");
    bench.tell(entry(1, { time: 3, playing: true }));
    assert.strictEqual(bench.asked.length, 4);
});
test("recordings that are being written are asked for what is new", async () => {
    const bench = await TracksBench.start(entry(1, { closed: false }), entry(2), entry(4, { closed: false, open: false }));
    assert.deepStrictEqual(bench.asked, [[1, "open"]]);
});
test("a recording that does not grow is asked less and less often, and nobody is told of it", async () => {
    let numFrames = 101;
    const bench = await TracksBench.start(entry(1, { closed: false }));
    const polls = async (count) => {
        for (let i = 0; i < count; ++i) {
            bench.all.poll();
            await bench.answer("Track.List", { tracks: [entry(1, { closed: false, numFrames })] });
        }
        return bench.asked.length;
    };
    await bench.refuse("Track.Control", "the disk is gone");
    assert.deepStrictEqual([bench.asked.length, bench.all.error, await polls(7), await polls(100)], [1, "", 3, 6]);
    numFrames = 102;
    assert.strictEqual(await polls(16), 4); // one of the long pauses, and anew from short ones on
});

// Series.

function piece(first, times, columns, more = {}) {
    const numbers = [times, ...columns.map(({ rows }) => rows.flat())].map((part) => Float64Array.from(part));
    let offset = 0;
    const place = (part) => ({ byteOffset: (offset += part.byteLength) - part.byteLength, numBytes: part.byteLength });
    const header = {
        first, count: times.length, done: false, times: place(numbers[0]),
        items: columns.map(({ rows, ...own }, item) => ({ item, components: rows[0]?.length ?? 1, ...place(numbers[item + 1]), ...own })), ...more,
    };
    return [header, new Uint8Array(Buffer.concat(numbers.map((part) => Buffer.from(part.buffer))))];
}
function taken(rows, ...args) {
    rows.take(...piece(...args));
    return rows;
}

test("rows are put together from pieces", () => {
    const rows = new series.Rows(2);
    rows.begin({ numFrames: 3, framesPerPoint: 1 });
    taken(rows, 0, [0, 1], [{ rows: [[1], [2]] }, { rows: [[1, 10], [2, 20]], id: 7 }]);
    assert.deepStrictEqual([rows.isDone, Math.round(100 * rows.progress)], [false, 67]);
    taken(rows, 2, [2], [{ rows: [[NaN]] }, { rows: [[3, 30]] }], { done: true });
    assert.deepStrictEqual([rows.isDone, rows.times, rows.column(0, 0), rows.column(1, 1), rows.column(1, 2)],
        [true, [0, 1, 2], [1, 2, null], [10, 20, 30], [null, null, null]]);
    assert.strictEqual(rows.items[1].id, 7);
});
test("a series without frames has come when it begins", () => {
    const rows = new series.Rows(1);
    rows.begin({ numFrames: 0 });
    assert.deepStrictEqual([rows.isDone, rows.progress], [true, 1]);
});
test("an item that is no number says why, and the others come", () => {
    const rows = taken(new series.Rows(2), 0, [0, 1], [{ rows: [], error: "not numeric" }, { rows: [[1], [2]] }]);
    assert.deepStrictEqual([rows.items[0].error, rows.column(0, 0), rows.column(1, 0)], ["not numeric", [null, null], [1, 2]]);
});
test("what a piece leaves out is not known there", () => {
    const rows = taken(new series.Rows(2), 0, [0, 1], [{ rows: [[1], [2]] }]);
    taken(rows, 2, [2], [{ rows: [[3]] }, { rows: [[9]] }]);
    assert.deepStrictEqual([rows.column(0, 0), rows.column(1, 0)], [[1, 2, 3], [null, null, 9]]);
});
test("pieces that lie are refused, and leave what came before them", () => {
    const good = [2, [2, 3], [{ rows: [[3], [4]] }]];
    const lies = {
        "a gap": [3, ...good.slice(1)],
        "again": [1, ...good.slice(1)],
        "an unknown item": [...good.slice(0, 2), [{ rows: [[3], [4]], item: 5 }]],
        "no item": [...good.slice(0, 2), [{ rows: [[3], [4]], item: "a" }]],
        "another size": [...good.slice(0, 2), [{ rows: [[3, 3], [4, 4]] }]],
        "too few bytes": [...good.slice(0, 2), [{ rows: [[3], [4]], numBytes: 8 }]],
        "bytes beyond the end": [...good.slice(0, 2), [{ rows: [[3], [4]], byteOffset: 24 }]],
        "components without end": [...good.slice(0, 2), [{ rows: [[3], [4]], components: 1e9 }]],
        "rows without end": [...good, { count: 1e9 }],
        "no times": [...good, { times: null }],
    };
    assert.throws(() => taken(new series.Rows(1), 0, [0], [{ rows: [[3]], byteOffset: 24 }]), /^Error: rows of a series that do not fit their bytes$/);
    for (const [name, lie] of Object.entries(lies)) {
        const rows = taken(new series.Rows(1), 0, [0, 1], [{ rows: [[1], [2]] }]);
        assert.throws(() => rows.take(...piece(...lie)), Error, name);
        assert.deepStrictEqual([rows.times, rows.column(0, 0)], [[0, 1], [1, 2]], name);
        taken(rows, ...good);
        assert.deepStrictEqual(rows.column(0, 0), [1, 2, 3, 4], name);
    }
});
test("a time that goes back takes back what came before it, and what is no time is left out", () => {
    const rows = taken(new series.Rows(1), 0, [0, 1, NaN, 2], [{ rows: [[1], [2], [3], [4]] }]);
    taken(rows, 4, [2, 1.5, Infinity, 3, -Infinity], [{ rows: [[5], [6], [7], [8], [9]] }]);
    assert.deepStrictEqual([rows.times, rows.column(0, 0)], [[0, 1, 1.5, 3], [1, 2, 6, 8]]);
});
test("what comes after the end is refused", () => {
    const rows = taken(new series.Rows(1), 0, [0], [{ rows: [[1]] }], { done: true });
    assert.throws(() => rows.take(...piece(1, [1], [{ rows: [[2]] }])), /do not follow/);
});
test("curves of several times share one axis, on which each holds between its first and its last row", () => {
    const joined = series.join([{ times: [0, 2, 4], columns: [[1, null, 3], [10, 20, 30]] }, { times: [1, 2, 2, 5], columns: [[7, 8, 9, 6]] }, { times: [], columns: [[]] }]);
    assert.deepStrictEqual(joined, {
        times: [0, 1, 2, 4, 5], columns: [[1, 1, null, 3, null], [10, 10, 20, 30, null], [null, 7, 9, 9, 6], [null, null, null, null, null]],
    });
});

const Energy = [{ path: "Recording1.energy", index: null }];

function feedOn(bench, track = 1) {
    let changes = 0;
    const feed = new series.Feed(bench.desk, track, () => ++changes);
    return { feed, count: () => changes };
}
test("a series is asked for over the whole run, and drawn while it comes", async () => {
    const bench = await TracksBench.start(entry(1));
    const { feed } = feedOn(bench);
    feed.set([{ path: "Recording1.energy", index: null }, { path: "Recording1.position", index: 3 }], null);
    const [request] = bench.sent("Track.Series");
    assert.deepStrictEqual({ ...request, series: 0 }, { id: 1, series: 0, items: [{ path: "Recording1.energy" }, { path: "Recording1.position", index: 3 }], points: 4000 });
    await bench.answer("Track.Series", { numFrames: 4, framesPerPoint: 1 });
    assert.deepStrictEqual([feed.rows, feed.progress], [null, 0]);
    bench.push("Track.Points", ...withSeries(request, piece(0, [0, 1], [{ rows: [[1], [2]] }, { rows: [[1, 2], [3, 4]] }])));
    assert.deepStrictEqual([feed.rows.times, feed.isComing, feed.progress], [[0, 1], true, 0.5]);
    bench.push("Track.Points", ...withSeries(request, piece(2, [2, 3], [{ rows: [[1], [2]] }, { rows: [[1, 2], [3, 4]] }], { done: true })));
    assert.deepStrictEqual([feed.rows.times, feed.isComing], [[0, 1, 2, 3], false]);
});
function withSeries(request, [header, payload]) {
    return [{ ...header, series: request.series }, payload];
}
async function fill(bench, numRows, number = bench.sent("Track.Series").length - 1) {
    const request = bench.sent("Track.Series")[number];
    await bench.answer("Track.Series", { numFrames: numRows, framesPerPoint: 1 });
    bench.push("Track.Points", ...withSeries(request, piece(0, Array.from({ length: numRows }, (_, i) => i), request.items.map(() => ({ rows: Array.from({ length: numRows }, () => [number]), id: 40 })), { done: true })));
}
test("a range is asked for in detail, the instance by its id, and what is under way for the range before is ended", async () => {
    const bench = await TracksBench.start(entry(1));
    const { feed } = feedOn(bench);
    const data = [{ path: "Recording1.position", index: 3 }];
    feed.set(data, null);
    await fill(bench, 3);
    feed.set(data, { start: 1, end: 2 });
    feed.set(data, { start: 1.5, end: 2 });
    const requests = bench.sent("Track.Series");
    assert.deepStrictEqual(requests.map(({ start, end }) => [start, end]), [[undefined, undefined], [1, 2], [1.5, 2]]);
    assert.deepStrictEqual(requests[2].items, [{ path: "Recording1.position", index: 3, id: 40 }]);
    assert.deepStrictEqual(bench.sent("Track.StopSeries"), [{ id: 1, series: requests[1].series }]);
    // What still comes of it is not taken for the other.
    bench.push("Track.Points", ...withSeries(requests[1], piece(0, [9], [{ rows: [[9]] }])));
    assert.deepStrictEqual([feed.rows.times, bench.lines], [[0, 1, 2], []]);
    // What comes of that takes the place of the whole run at once.
    bench.push("Track.Points", ...withSeries(requests[2], piece(0, [1.5], [{ rows: [[9]] }])));
    assert.deepStrictEqual([feed.rows.times, feed.isComing], [[1.5], true]);
});
test("a recording that has grown is asked for again, and its curve stays until all is there", async () => {
    const bench = await TracksBench.start(entry(1, { numFrames: 3 }));
    const { feed } = feedOn(bench);
    feed.set(Energy, null);
    await fill(bench, 3);
    bench.tell(entry(1, { numFrames: 3, time: 5 }));
    assert.strictEqual(bench.sent("Track.Series").length, 1);
    bench.tell(entry(1, { numFrames: 4 }));
    const request = bench.sent("Track.Series")[1];
    await bench.answer("Track.Series", { numFrames: 4, framesPerPoint: 1 });
    bench.push("Track.Points", ...withSeries(request, piece(0, [0], [{ rows: [[5]] }])));
    assert.deepStrictEqual(feed.rows.times, [0, 1, 2]);
    bench.push("Track.Points", ...withSeries(request, piece(1, [1, 2, 3], [{ rows: [[5], [5], [5]] }], { done: true })));
    assert.deepStrictEqual(feed.rows.times, [0, 1, 2, 3]);
});
test("a range that lies behind what has grown is not asked for again", async () => {
    const bench = await TracksBench.start(entry(1, { numFrames: 3 }));
    const { feed } = feedOn(bench);
    feed.set(Energy, { start: 0, end: 2 });
    await fill(bench, 3);
    bench.tell(entry(1, { numFrames: 4 }));
    assert.strictEqual(bench.sent("Track.Series").length, 1);
});
test("a series that is refused or malformed says so and is not asked for again and again", async () => {
    const bench = await TracksBench.start(entry(1), entry(2));
    const first = feedOn(bench).feed;
    first.set(Energy, null);
    await bench.refuse("Track.Series", "frame 3 can not be read");
    const second = feedOn(bench, 2).feed;
    second.set(Energy, null);
    const request = bench.sent("Track.Series")[1];
    await bench.answer("Track.Series", { numFrames: 9, framesPerPoint: 1 });
    bench.push("Track.Points", ...withSeries(request, piece(4, [0], [{ rows: [[1]] }])));
    assert.deepStrictEqual([first.error, second.error], ["frame 3 can not be read", "rows of a series that do not follow one another"]);
    bench.tell(entry(1, { time: 3 }));
    bench.tell(entry(2, { time: 3 }));
    assert.strictEqual(bench.sent("Track.Series").length, 2);
    assert.deepStrictEqual(bench.lines.map(({ text }) => text), ["unreadable: rows of a series that do not follow one another"]);
});
test("only so many series are under way, and the others follow", async () => {
    const bench = await TracksBench.start(entry(1));
    const feeds = Array.from({ length: 10 }, () => feedOn(bench).feed);
    for (const feed of feeds)
        feed.set(Energy, null);
    assert.strictEqual(bench.sent("Track.Series").length, 8);
    feeds[0].close();
    await fill(bench, 1, 1);
    await settle();
    assert.strictEqual(bench.sent("Track.Series").length, 10);
});
test("a closed recording is asked for nothing, and what was under way is asked for again once it is open", async () => {
    const bench = await TracksBench.start(entry(1));
    const { feed } = feedOn(bench);
    feed.set(Energy, null);
    bench.tell(entry(1, { open: false }));
    assert.strictEqual(feed.isComing, false);
    bench.tell(entry(1));
    assert.strictEqual(bench.sent("Track.Series").length, 2);
});
test("series are asked for again after the connection was lost", async () => {
    const bench = await TracksBench.start(entry(1));
    const { feed } = feedOn(bench);
    feed.set(Energy, null);
    await fill(bench, 3);
    bench.socket.onclose({ code: 1006 });
    bench.later();
    await bench.greet();
    await bench.answer("Track.List", { tracks: [entry(1)] });
    assert.deepStrictEqual([bench.sent("Track.Series").length, feed.rows.times], [1, [0, 1, 2]]);
});

// Statistics.

function provider(path, accumulated, count, name = "WallTime", more = {}) {
    return { name: path.split("/").pop(), path, depth: 0, data: [{ name, timing: true, value: 1, accumulated, count, ...more }] };
}
test("times are those between two looks, the longest first", () => {
    const times = new statistics.Times();
    times.take({ enabled: true, providers: [provider("a/quick", 10, 10), provider("a/slow", 100, 5), provider("idle", 7, 7)] }, 1);
    assert.deepStrictEqual([times.isEnabled, times.rows], [true, []]);
    times.take({ enabled: true, providers: [provider("a/quick", 30, 30), provider("a/slow", 400, 15), provider("idle", 7, 7)] }, 3);
    assert.deepStrictEqual(times.rows, [
        { name: "slow", path: "a/slow", each: 30, runs: 5, perSecond: 150 }, { name: "quick", path: "a/quick", each: 1, runs: 10, perSecond: 10 },
    ]);
});
test("a task is listed by the time of its runs alone", () => {
    const times = new statistics.Times();
    const look = (n) => {
        const task = provider("step", n, n);
        task.data.push(...["ComputeCost", "Overhead"].map((name) => ({ name, timing: true, accumulated: n, count: n })));
        return { enabled: true, providers: [task] };
    };
    times.take(look(1), 1);
    times.take(look(2), 2);
    assert.deepStrictEqual(times.rows.map(({ name }) => name), ["step"]);
});
test("other times than those of runs are named, and what is no time is left out", () => {
    const times = new statistics.Times();
    const look = (n) => ({ enabled: true, providers: [provider("w", n, n, "Writing"), provider("w", n, n, "Frames", { timing: false }), provider("w", n, n, "")] });
    times.take(look(1), 1);
    times.take(look(2), 2);
    assert.deepStrictEqual(times.rows.map(({ name }) => name), ["w: Writing", "w"]);
});
test("providers of one path are told apart by their order", () => {
    const times = new statistics.Times();
    times.take({ enabled: true, providers: [provider("a", 0, 0), provider("a", 100, 1)] }, 1);
    times.take({ enabled: true, providers: [provider("a", 2, 1), provider("a", 103, 2)] }, 2);
    assert.deepStrictEqual(times.rows.map(({ each }) => each), [3, 2]);
});
test("what was cleared, is new or makes no sense has no time until it is seen again", () => {
    const times = new statistics.Times();
    times.take({ enabled: true, providers: [provider("cleared", 50, 9), provider("odd", 1, 1), provider("quick", 50, 1)] }, 1);
    times.take({ enabled: true, providers: [provider("cleared", 1, 1), provider("new", 5, 5), provider("odd", "nan", 2), provider("quick", 7, 9), null, { data: 3 }, provider("x", {}, [])] }, 2);
    assert.deepStrictEqual(times.rows, []);
    times.take({ enabled: 1, providers: "none" }, 3);
    assert.deepStrictEqual([times.isEnabled, times.rows], [false, []]);
});
test("streams are read as far as they make sense", () => {
    assert.deepStrictEqual(statistics.streamsOf([{ name: "tcp", port: 4000, numFrames: 5, numLeftOut: 2, numClients: 1, numQueuedBytes: 9 }, null, { numLeftOut: -1 }]), [
        { name: "tcp", port: 4000, numFrames: 5, numLeftOut: 2, numClients: 1, numQueuedBytes: 9 },
        { name: "", port: 0, numFrames: 0, numLeftOut: 0, numClients: 0, numQueuedBytes: 0 },
    ]);
    assert.deepStrictEqual(statistics.streamsOf(undefined), []);
});
test("a program without statistics is not asked again", async () => {
    const bench = new SessionBench();
    const watcher = new statistics.Watcher(bench.session, () => 0);
    bench.session.connection.connect();
    await bench.greet();
    await bench.refuse("Statistics.List", "No message handler registered");
    await settle();
    watcher.poll();
    assert.deepStrictEqual([watcher.isOffered, bench.sent("Statistics.List").length], [false, 1]);
});

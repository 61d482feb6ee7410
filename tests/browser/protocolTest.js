// The protocol as the page speaks it, without a page: the bytes of envelopes, what is made of hostile ones, and connections that end.
"use strict";
const assert = require("node:assert");
const fs = require("fs");
const path = require("path");
const { test } = require("node:test");
const { Bench, SessionBench, bufferOf, settle } = require("./bench.js");

const { protocol, model } = globalThis;
const { None, Elements, Refusal, Disconnected, encode, decode } = protocol;

function golden(name) {
    const text = fs.readFileSync(path.join(__dirname, "../golden", name), "utf8").replace(/#.*/g, "");
    return Uint8Array.from(text.trim().split(/\s+/), (digits) => parseInt(digits, 16));
}
function withField(bytes, at, value) {
    const changed = bytes.slice();
    new DataView(changed.buffer).setUint32(at, value, true);
    return bufferOf(changed);
}

// Envelopes.

test("envelopes are written as the golden one", () => {
    assert.deepStrictEqual(encode(7, 5, "Track.Ack", { frame: 3 }, Uint8Array.of(1, 2, 3, 4)), golden("envelope.hex"));
});
test("the golden envelope is read", () => {
    const message = decode(bufferOf(golden("envelope.hex")));
    assert.deepStrictEqual({ ...message, payload: [...message.payload] },
        { messageId: 7, responseId: 5, uri: "Track.Ack", header: { frame: 3 }, payload: [1, 2, 3, 4] });
});
test("a header that ends at a multiple of 32 needs no padding", () => {
    const bytes = encode(1, None, "", "abcde", Uint8Array.of(9)); // 24 and 7 with quotes, and the line feed
    assert.strictEqual(new DataView(bytes.buffer).getUint32(16, true), 32);
    assert.strictEqual(bytes.length, 33);
});
test("sizes of envelopes count bytes, not letters", () => {
    assert.strictEqual(decode(bufferOf(encode(1, None, "Wärme", { text: "°C" }))).header.text, "°C");
});
test("a header of null is read as one without members", () => {
    assert.deepStrictEqual(decode(bufferOf(encode(1, None, "A", null))).header, {});
});
test("envelopes that are cut short at any byte are refused", () => {
    const whole = golden("envelope.hex");
    for (let size = 0; size < whole.length; ++size)
        assert.throws(() => decode(bufferOf(whole.slice(0, size))), Error, "of " + size + " bytes");
});
test("sizes that reach beyond the message are refused", () => {
    const whole = golden("envelope.hex");
    for (const at of [8, 12, 16, 20])
        for (const size of [whole.length, 0x7FFFFFFF, 0xFFFFFFFF])
            assert.throws(() => decode(withField(whole, at, size)), /cut short|a header of/);
});
test("headers above a mebibyte are refused", () => {
    assert.throws(() => decode(bufferOf(encode(1, None, "A", { a: "x".repeat(1 << 20) }))), /a header of 10485\d\d bytes/);
});
test("headers that are no objects are refused", () => {
    for (const header of [3, "text", [1], true])
        assert.throws(() => decode(bufferOf(encode(1, None, "A", header))), /no object/);
});
test("URIs and headers that are no UTF-8 are refused", () => {
    const whole = golden("envelope.hex");
    for (const at of [24, 36]) {
        const changed = whole.slice();
        changed[at] = 0xFF;
        assert.throws(() => decode(bufferOf(changed)));
    }
});

// Numbers and elements.

test("numbers that JSON has not come as texts", () => {
    assert.deepStrictEqual(["nan", "inf", "-inf", "18446744073709551615", "", "abc", null, {}].map(protocol.numberOf),
        [NaN, Infinity, -Infinity, 18446744073709551615, NaN, NaN, NaN, NaN]);
});
test("values of several numbers are taken apart", () => {
    assert.deepStrictEqual(model.numbersOf("1, 2.5, -3e2"), [1, 2.5, -300]);
    assert.deepStrictEqual(model.numbersOf("rover 3"), []);
    assert.deepStrictEqual(model.numbersOf(true), [1]);
    assert.deepStrictEqual(model.numbersOf("nan"), [NaN]);
});
test("elements are read with the gaps between them, at any place", () => {
    const payload = new Uint8Array(1 + 2 * 12);
    const view = new DataView(payload.buffer);
    [1.5, 2.5, -1, 3.5, 4.5, -1].forEach((number, i) => view.setFloat32(1 + 4 * i, number, true));
    const elements = new Elements({ elementSize: 12, component: "f32", components: 2, byteOffset: 1, numBytes: 24 }, payload);
    assert.deepStrictEqual([[...elements.column(0)], [...elements.column(1)]], [[1.5, 3.5], [2.5, 4.5]]);
    assert.throws(() => elements.at(0, 2), RangeError);
    assert.throws(() => elements.at(2, 1), RangeError);
});
test("integers of 64 bits keep all their digits", () => {
    const payload = new Uint8Array(8).fill(0xFF);
    assert.strictEqual(new Elements({ elementSize: 8, component: "u64", components: 1, numBytes: 8 }, payload).at(0, 0), 18446744073709551615n);
});
test("elements that are not numbers are shown by their bytes", () => {
    const elements = new Elements({ elementSize: 3, component: "", components: 0, numBytes: 3 }, Uint8Array.of(1, 0xAB, 3));
    assert.strictEqual(elements.textAt(0), "01 ab 03");
});
test("elements that are no plain bytes come as texts", () => {
    const elements = new Elements({ elementSize: 0, component: "", components: 0, numBytes: 0, texts: ["Ann", 3, {}] }, new Uint8Array(0));
    assert.deepStrictEqual([elements.count, elements.components, [0, 1, 2].map((i) => elements.textAt(i))], [3, 0, ["Ann", "3", ""]]);
    assert.throws(() => new Elements({ elementSize: 1, numBytes: 1, texts: ["a"] }, new Uint8Array(1)), /both bytes and texts/);
});
test("elements that lie about their size are refused", () => {
    const payload = new Uint8Array(16);
    const good = { elementSize: 8, component: "f64", components: 1, byteOffset: 0, numBytes: 16 };
    assert.strictEqual(new Elements(good, payload).count, 2);
    const lies = [{ byteOffset: 1 }, { byteOffset: 0xFFFFFFFF }, { numBytes: 24 }, { numBytes: 12 }, { components: 2 }, { elementSize: 0 },
        { elementSize: 4 }, { elementSize: "x" }, { component: "f16" }, { component: "toString" }];
    for (const lie of lies)
        assert.throws(() => new Elements({ ...good, ...lie }, payload), Error, JSON.stringify(lie));
});

// Connections.

test("nothing is asked ahead of the token", async () => {
    const bench = new Bench();
    await assert.rejects(bench.connection.request("System.Info", {}), Disconnected);
    bench.socket.onopen();
    await assert.rejects(bench.connection.request("System.Info", {}), Disconnected);
    assert.deepStrictEqual(bench.socket.sent.map(({ uri, header }) => [uri, header.token]), [["authenticate", "secret"]]);
});
test("a wrong token ends the connection for good", async () => {
    const bench = new Bench();
    bench.socket.onopen();
    bench.say(1, 1, "authenticate", { success: false });
    await settle();
    assert.deepStrictEqual(bench.states, ["connecting", "refused"]);
    assert.deepStrictEqual([bench.socket.isClosed, bench.timers], [true, []]);
});
test("answers find their requests by their numbers, in any order", async () => {
    const bench = new Bench();
    await bench.authenticate();
    const first = bench.connection.request("Value.Set", { path: "a" });
    const second = bench.connection.request("Value.Set", { path: "b" });
    const ids = bench.socket.sent.slice(1).map(({ messageId, responseId }) => [messageId, responseId]);
    assert.deepStrictEqual(ids, [[2, None], [3, None]]);
    bench.say(2, 3, "Value.Set", { success: true, value: "second" });
    bench.say(3, 2, "Value.Set", { success: true, value: "first", unknown: [{}] });
    assert.deepStrictEqual([(await first).header.value, (await second).header.value], ["first", "second"]);
});
test("a request that fails is refused by the text of its error", async () => {
    const bench = new Bench();
    await bench.authenticate();
    const request = bench.connection.request("Value.Set", {});
    bench.say(2, 2, "Value.Set", { success: false, error: "no such object" });
    await assert.rejects(request, new Refusal("no such object"));
    const other = bench.connection.request("Value.Set", {});
    bench.say(3, 3, "Value.Set", {});
    await assert.rejects(other, new Refusal("Value.Set was refused"));
});
test("answers to nothing, and to another request, are faults that change nothing", async () => {
    const bench = new Bench();
    await bench.authenticate();
    const request = bench.connection.request("System.Info", {});
    bench.say(2, 99, "System.Info", { success: true });
    bench.say(3, 2, "Value.Set", { success: true });
    bench.say(4, 2, "System.Info", { success: true, pid: 4 });
    assert.strictEqual((await request).header.pid, 4);
    assert.strictEqual(bench.faults.length, 2);
    assert.strictEqual(bench.connection.state, "connected");
});
test("lines of text and unreadable messages are faults that do not end the connection", async () => {
    const bench = new Bench();
    await bench.authenticate();
    bench.socket.onmessage({ data: "Error: something" });
    bench.socket.onmessage({ data: new ArrayBuffer(3) });
    bench.socket.onmessage({ data: undefined });
    assert.deepStrictEqual(bench.faults, ["Error: something", "unreadable: a message without its pre-header", ""]);
    assert.strictEqual(bench.connection.state, "connected");
});
test("pushes go to whom they are for, frame packets and unknown ones to nobody", async () => {
    const bench = new Bench();
    await bench.authenticate();
    const got = [];
    bench.connection.onPush("Log.Line", ({ header }) => got.push(header.text));
    bench.say(2, None, "Log.Line", { text: "a" });
    bench.say(3, None, "Other", {});
    bench.say(None, None, "", {}, Uint8Array.of(1));
    assert.deepStrictEqual([got, bench.faults], [["a"], []]);
});
test("what a handler of a push throws is a fault", async () => {
    const bench = new Bench();
    await bench.authenticate();
    bench.connection.onPush("Watch.Update", () => { throw new Error("malformed"); });
    bench.say(2, None, "Watch.Update", {});
    assert.deepStrictEqual(bench.faults, ["unreadable: malformed"]);
});
test("a lost connection refuses what waits and comes back after ever longer delays", async () => {
    const bench = new Bench();
    await bench.authenticate();
    const request = bench.connection.request("System.Info", {});
    bench.socket.onclose({ code: 1006 });
    await assert.rejects(request, Disconnected);
    const delays = [];
    for (let i = 0; i < 7; ++i) {
        delays.push(bench.runTimer());
        bench.socket.onclose({ code: 1006 });
    }
    assert.deepStrictEqual(delays, [250, 500, 1000, 2000, 4000, 8000, 8000]);
    bench.runTimer();
    await bench.authenticate();
    assert.strictEqual(bench.connection.state, "connected");
    bench.socket.onclose({ code: 1006 });
    assert.strictEqual(bench.runTimer(), 250);
});
test("what an earlier socket still says is not heard", async () => {
    const bench = new Bench();
    await bench.authenticate();
    const earlier = bench.socket;
    earlier.onclose({ code: 1006 });
    bench.runTimer();
    earlier.onmessage({ data: "late" });
    earlier.onclose({ code: 1000 });
    assert.deepStrictEqual([bench.faults, bench.timers.length], [[], 0]);
});

// Watches over it.

test("watches are added again after the connection was lost", async () => {
    const bench = new SessionBench();
    bench.session.connection.connect();
    await bench.greet();
    bench.session.subscribe(() => undefined, () => undefined).set({ paths: ["a.b"], interval: 16 });
    assert.deepStrictEqual(bench.sent("Watch.Add").map(({ paths }) => paths), [["a.b"]]);
    bench.socket.onclose({ code: 1006 });
    bench.later();
    await bench.greet();
    assert.deepStrictEqual(bench.sent("Watch.Add").map(({ paths }) => paths), [["a.b"]]);
});
test("paths that lead nowhere are told", async () => {
    const bench = new SessionBench();
    bench.session.connection.connect();
    await bench.greet();
    const errors = [];
    bench.session.subscribe(() => undefined, (text) => errors.push(text)).set({ paths: ["a", "b", "c"], interval: 16 });
    const { messageId } = bench.socket.sent.find(({ uri }) => uri === "Watch.Add");
    bench.say(3, messageId, "Watch.Add", { success: true, items: [{ path: "a", kind: "none" }, { path: "b", kind: "value" }, { path: "c", kind: "none" }] });
    await settle();
    assert.deepStrictEqual(errors, ["Not there at present: a, c"]);
});
test("each update is acknowledged, also one that is malformed, which is told", async () => {
    const bench = new SessionBench();
    bench.session.connection.connect();
    await bench.greet();
    const updates = [];
    bench.session.subscribe((update) => updates.push(update), () => undefined).set({ paths: ["a"], interval: 16 });
    const { watch } = bench.sent("Watch.Add")[0];
    bench.say(3, None, "Watch.Update", { watch, sequence: 1, clock: { path: "c", time: 2 }, items: [{ item: 0, value: 7 }] });
    bench.say(4, None, "Watch.Update", { watch, sequence: 2, clock: null, items: [{ item: 9, value: 7 }] });
    bench.say(5, None, "Watch.Update", { watch: 77, sequence: 1, clock: null, items: [] });
    assert.deepStrictEqual(bench.sent("Watch.Ack"), [{ watch, sequence: 1 }, { watch, sequence: 2 }]);
    assert.deepStrictEqual(updates.map(({ time, items }) => [time, items[0].path, items[0].value]), [[2, "a", 7]]);
    assert.deepStrictEqual(bench.lines.map(({ text }) => text), ["unreadable: an update of an item that is not watched"]);
});
test("updates of a watch that was replaced are not taken for those of the new one", async () => {
    const bench = new SessionBench();
    bench.session.connection.connect();
    await bench.greet();
    const updates = [];
    const subscription = bench.session.subscribe((update) => updates.push(update), () => undefined);
    subscription.set({ paths: ["a"], interval: 16 });
    subscription.set({ paths: ["b"], interval: 16 });
    const [old, now] = bench.sent("Watch.Add");
    assert.deepStrictEqual(bench.sent("Watch.Remove"), [{ watch: old.watch }]);
    bench.say(3, None, "Watch.Update", { watch: old.watch, sequence: 1, clock: null, items: [{ item: 0, value: 1 }] });
    bench.say(4, None, "Watch.Update", { watch: now.watch, sequence: 1, clock: null, items: [{ item: 0, value: 2 }] });
    assert.deepStrictEqual(updates.map(({ items }) => [items[0].path, items[0].value]), [["b", 2]]);
});

// Curves and pace.

test("a time that goes back takes back what came after it", () => {
    const curves = new model.Curves();
    curves.addColumn();
    [[1, 10], [2, 20], [3, 30], [2, 21], [2.5, NaN]].forEach(([time, value]) => curves.push(time, [value]));
    assert.deepStrictEqual([curves.times, curves.columns], [[1, 2, 2.5], [[10, 21, null]]]);
});
test("curves forget the oldest when they are long", () => {
    const curves = new model.Curves();
    curves.addColumn();
    for (let i = 0; i < 50000; ++i)
        curves.push(i, [i]);
    assert.ok(curves.times.length <= 45000);
    assert.deepStrictEqual([curves.times.length === curves.columns[0].length, curves.times[curves.times.length - 1]], [true, 49999]);
});
test("pace and drift are those of what was seen since the clock was last changed", () => {
    const pace = new model.Pace();
    const clock = (time, more = {}) => ({ path: "c", time, frame: 100 * time, frequency: 100, timeStep: 0.01, modulation: 1, enabled: true, master: "", pending: 0, ...more });
    assert.strictEqual(pace.motion, null);
    for (let wall = 0; wall <= 10; ++wall)
        pace.add(wall, clock(0.5 * wall));
    assert.deepStrictEqual([pace.motion, pace.framesPerSecond, pace.secondsPerSecond, pace.drift], ["running", 50, 0.5, -5]);
    pace.add(11, clock(5, { enabled: false }));
    assert.deepStrictEqual([pace.motion, pace.drift], ["paused", NaN]);
    pace.add(12, clock(5));
    pace.add(13, clock(6));
    assert.deepStrictEqual([pace.motion, pace.drift], ["running", 0]);
    pace.add(14, clock(6));
    pace.add(17, clock(6));
    assert.strictEqual(pace.motion, "standing");
});

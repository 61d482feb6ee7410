// Connections and sessions whose other side is a test: the protocol as the page speaks it, without a page.
"use strict";
const assert = require("node:assert");
const { load } = require("./load.js");

load("protocol.js", "model.js", "tracks.js", "series.js", "statistics.js");
const { protocol, model } = globalThis;
const { None, Connection, encode, decode } = protocol;

function bufferOf(bytes) {
    return bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
}
/// Until all promises that can go on have done so.
function settle() {
    return new Promise((resolve) => setImmediate(resolve));
}

/// A connection whose other side is the test, and whose time stands still until the test lets it go on.
class Bench {
    constructor() {
        this.sockets = [];
        this.states = [];
        this.faults = [];
        this.timers = [];
        this.connection = new Connection({
            open: () => {
                const socket = { sent: [], isClosed: false, send: (bytes) => socket.sent.push(decode(bufferOf(bytes))), close: () => socket.isClosed = true };
                this.sockets.push(socket);
                return socket;
            },
            later: (action, milliseconds) => {
                const timer = { action, milliseconds };
                this.timers.push(timer);
                return () => this.timers = this.timers.filter((each) => each !== timer);
            },
        }, "secret", { state: (state) => this.states.push(state), fault: (text) => this.faults.push(text) });
        this.connection.connect();
    }
    get socket() {
        return this.sockets[this.sockets.length - 1];
    }
    say(messageId, responseId, uri, header, payload) {
        this.socket.onmessage({ data: bufferOf(encode(messageId, responseId, uri, header, payload)) });
    }
    async authenticate() {
        this.socket.onopen();
        this.say(1, this.socket.sent[0].messageId, "authenticate", { success: true });
        await settle();
    }
    /// Runs the only timer; how long it waited.
    runTimer() {
        const [timer, ...others] = this.timers.splice(0);
        assert.deepStrictEqual(others, []);
        timer.action();
        return timer.milliseconds;
    }
}

/// A session, and watches over its connection.
class SessionBench extends Bench {
    constructor() {
        super();
        this.now = 0;
        this.session = new model.Session({ open: () => this.open(), later: (action) => { this.later = action; return () => undefined; } }, "secret", () => this.now);
        this.lines = this.session.lines;
    }
    open() {
        const socket = { sent: [], send: (bytes) => socket.sent.push(decode(bufferOf(bytes))), close: () => undefined };
        this.sockets.push(socket);
        return socket;
    }
    async greet(info = {}) {
        this.socket.onopen();
        this.say(1, 1, "authenticate", { success: true });
        await settle();
        this.say(2, 2, "System.Info", { success: true, writable: true, ...info });
        await settle();
    }
    sent(uri) {
        return this.socket.sent.filter((message) => message.uri === uri).map(({ header }) => header);
    }
    /// Answers the oldest request of the URI that has no answer yet.
    async answer(uri, header) {
        const answered = this.socket.answered = this.socket.answered ?? new Set();
        const request = this.socket.sent.find((message) => message.uri === uri && !answered.has(message.messageId));
        assert.ok(request !== undefined, uri + " was not asked for");
        answered.add(request.messageId);
        this.say(1, request.messageId, uri, { success: true, ...header });
        await settle();
    }
    async refuse(uri, error) {
        await this.answer(uri, { success: false, error });
    }
    push(uri, header, payload) {
        this.say(1, None, uri, header, payload);
    }
}

module.exports = { Bench, SessionBench, bufferOf, settle };

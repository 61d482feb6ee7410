"use strict";
/// The inspection protocol: envelopes, requests with their answers, pushes, and a connection that comes back. It needs no page: the
/// socket and the timer are handed in.
var protocol;
(function (protocol) {
    /// In place of an id: none.
    protocol.None = 0xFFFFFFFF;
    const PreHeaderSize = 24;
    const Alignment = 32;
    const MaxHeaderSize = 1048576;
    /// Pre-header, URI, header, and with a payload the padding up to the next multiple of 32 ahead of it.
    function encode(messageId, responseId, uri, header, payload = new Uint8Array(0)) {
        const encoder = new TextEncoder();
        const uriBytes = encoder.encode(uri);
        const headerBytes = encoder.encode(JSON.stringify(header) + "\n");
        const end = PreHeaderSize + uriBytes.length + headerBytes.length;
        const offset = payload.length === 0 ? 0 : Math.ceil(end / Alignment) * Alignment;
        const bytes = new Uint8Array(Math.max(end, offset + payload.length));
        const view = new DataView(bytes.buffer);
        [messageId, responseId, uriBytes.length, headerBytes.length, offset, payload.length].forEach((field, i) => view.setUint32(4 * i, field, true));
        bytes.set(uriBytes, PreHeaderSize);
        bytes.set(headerBytes, PreHeaderSize + uriBytes.length);
        bytes.fill(0xAA, end, offset);
        bytes.set(payload, offset);
        return bytes;
    }
    protocol.encode = encode;
    /// @throws Error where the bytes are no message
    function decode(buffer) {
        if (buffer.byteLength < PreHeaderSize)
            throw new Error("a message without its pre-header");
        const view = new DataView(buffer);
        const [messageId, responseId, uriSize, headerSize, offset, size] = [0, 4, 8, 12, 16, 20].map((place) => view.getUint32(place, true));
        if (headerSize > MaxHeaderSize)
            throw new Error("a message with a header of " + headerSize + " bytes");
        // Sums of two numbers of 32 bits are exact.
        if (PreHeaderSize + uriSize + headerSize > buffer.byteLength || offset + size > buffer.byteLength)
            throw new Error("a message that is cut short");
        const decoder = new TextDecoder("utf-8", { fatal: true });
        const text = (at, length) => decoder.decode(new Uint8Array(buffer, at, length));
        const uri = text(PreHeaderSize, uriSize);
        const header = JSON.parse(text(PreHeaderSize + uriSize, headerSize));
        if (header !== null && !isMembers(header))
            throw new Error("a message whose header is no object");
        return {
            messageId, responseId, uri, header: header ?? {},
            payload: size === 0 ? new Uint8Array(0) : new Uint8Array(buffer, offset, size),
        };
    }
    protocol.decode = decode;
    // Members of headers, whatever the other side has sent.
    function isMembers(value) {
        return typeof value === "object" && value !== null && !Array.isArray(value);
    }
    protocol.isMembers = isMembers;
    function textOf(value) {
        return typeof value === "string" ? value : typeof value === "number" || typeof value === "boolean" ? String(value) : "";
    }
    protocol.textOf = textOf;
    /// Also of the texts that stand for numbers which JSON has not; NaN for all else.
    function numberOf(value) {
        if (typeof value === "number")
            return value;
        if (typeof value === "boolean")
            return value ? 1 : 0;
        if (typeof value !== "string" || value.trim() === "")
            return NaN;
        if (value === "inf" || value === "-inf")
            return value === "inf" ? Infinity : -Infinity;
        return /^[-+.0-9eE]+$/.test(value.trim()) ? Number(value) : NaN;
    }
    protocol.numberOf = numberOf;
    /// A number of things: an integer, 0 where there is none.
    function countOf(value) {
        const number = numberOf(value);
        return Number.isSafeInteger(number) && number > 0 ? number : 0;
    }
    protocol.countOf = countOf;
    function listOf(value) {
        return Array.isArray(value) ? value.filter(isMembers) : [];
    }
    protocol.listOf = listOf;
    // Elements of buffers.
    const readers = new Map(Object.entries({
        f32: { size: 4, read: (view, at) => view.getFloat32(at, true) },
        f64: { size: 8, read: (view, at) => view.getFloat64(at, true) },
        i8: { size: 1, read: (view, at) => view.getInt8(at) },
        u8: { size: 1, read: (view, at) => view.getUint8(at) },
        i16: { size: 2, read: (view, at) => view.getInt16(at, true) },
        u16: { size: 2, read: (view, at) => view.getUint16(at, true) },
        i32: { size: 4, read: (view, at) => view.getInt32(at, true) },
        u32: { size: 4, read: (view, at) => view.getUint32(at, true) },
        i64: { size: 8, read: (view, at) => view.getBigInt64(at, true) },
        u64: { size: 8, read: (view, at) => view.getBigUint64(at, true) },
    }));
    /// The elements that a header tells of, in the payload that came with it.
    class Elements {
        /// @throws Error where the members do not fit one another or the payload
        constructor(header, payload) {
            this.type = textOf(header.type);
            this.component = textOf(header.component);
            this.components = countOf(header.components);
            this.elementSize = countOf(header.elementSize);
            const numBytes = countOf(header.numBytes);
            const offset = countOf(header.byteOffset);
            const reader = readers.get(this.component);
            if (this.component !== "" && reader === undefined)
                throw new Error("elements of unknown numbers: " + this.component);
            if ((reader?.size ?? 0) * this.components > this.elementSize)
                throw new Error("elements that are smaller than their numbers");
            if (reader === undefined)
                this.components = 0;
            if (offset + numBytes > payload.byteLength)
                throw new Error("elements that lie outside of the payload");
            this.texts = Array.isArray(header.texts) ? header.texts : null;
            if (this.texts !== null && numBytes > 0)
                throw new Error("elements that are both bytes and texts");
            if (numBytes > 0 && (this.elementSize === 0 || numBytes % this.elementSize !== 0))
                throw new Error("elements that are cut short");
            this.count = this.texts !== null ? this.texts.length : numBytes === 0 ? 0 : numBytes / this.elementSize;
            if (this.texts !== null)
                this.components = 0;
            this.view = new DataView(payload.buffer, payload.byteOffset + offset, numBytes);
        }
        at(index, component) {
            const reader = readers.get(this.component);
            if (reader === undefined || component >= this.components)
                throw new RangeError("no such number: " + component);
            return reader.read(this.view, index * this.elementSize + component * reader.size);
        }
        numberAt(index, component) {
            return Number(this.at(index, component));
        }
        /// For a person: an element that is not made of numbers, by its text or its bytes.
        textAt(index) {
            if (this.texts !== null)
                return textOf(this.texts[index]);
            let text = "";
            for (let i = 0; i < Math.min(this.elementSize, 16); ++i)
                text += this.view.getUint8(index * this.elementSize + i).toString(16).padStart(2, "0") + " ";
            return text.trimEnd() + (this.elementSize > 16 ? " …" : "");
        }
        /// One number of each element, copied.
        column(component) {
            const column = new Float64Array(this.count);
            for (let i = 0; i < this.count; ++i)
                column[i] = this.numberAt(i, component);
            return column;
        }
    }
    protocol.Elements = Elements;
    /// A request that was answered by an error.
    class Refusal extends Error {
    }
    protocol.Refusal = Refusal;
    /// A request whose connection ended ahead of the answer.
    class Disconnected extends Error {
    }
    protocol.Disconnected = Disconnected;
    protocol.FirstDelay = 250;
    protocol.LongestDelay = 8000;
    /// Authenticates, and connects again for as long as it is not closed, each time after twice the delay. A token that is refused
    /// ends it: another try would be refused alike.
    class Connection {
        constructor(surroundings, token, events) {
            this.surroundings = surroundings;
            this.token = token;
            this.events = events;
            this.socket = null;
            this.lastId = 0;
            this.delay = protocol.FirstDelay;
            this.cancelLater = () => undefined;
            this.waiting = new Map();
            this.pushes = new Map();
            this.current = "closed";
        }
        get state() {
            return this.current;
        }
        onPush(uri, handler) {
            this.pushes.set(uri, handler);
        }
        connect() {
            this.cancelLater();
            this.setState("connecting", "connecting");
            let socket;
            try {
                socket = this.surroundings.open();
            }
            catch (error) {
                this.end("closed", String(error));
                return;
            }
            this.socket = socket;
            this.lastId = 0;
            socket.binaryType = "arraybuffer";
            socket.onopen = () => {
                this.exchange("authenticate", { token: this.token }).then(() => {
                    this.delay = protocol.FirstDelay;
                    this.setState("connected", "connected");
                }, (error) => {
                    if (error instanceof Refusal)
                        this.end("refused", "The token is not that of the control channel.");
                });
            };
            socket.onmessage = (event) => {
                if (socket === this.socket)
                    this.receive(event.data);
            };
            socket.onclose = (event) => {
                if (socket === this.socket)
                    this.lose("closed with status " + event.code);
            };
        }
        /// Connects at once where it waits to do so.
        retry() {
            if (this.current === "lost")
                this.connect();
        }
        close() {
            this.end("closed", "closed");
        }
        /// @throws Refusal, Disconnected: by the promise
        request(uri, header) {
            return this.current === "connected" ? this.exchange(uri, header)
                : Promise.reject(new Disconnected("not connected"));
        }
        /// For what is never answered.
        tell(uri, header) {
            if (this.current === "connected" && this.socket !== null)
                this.socket.send(encode(++this.lastId, protocol.None, uri, header));
        }
        exchange(uri, header) {
            return new Promise((resolve, reject) => {
                const id = ++this.lastId;
                this.waiting.set(id, { uri, resolve, reject });
                this.socket?.send(encode(id, protocol.None, uri, header));
            });
        }
        receive(data) {
            if (!(data instanceof ArrayBuffer)) {
                this.events.fault(textOf(data));
                return;
            }
            try {
                const message = decode(data);
                if (message.responseId !== protocol.None)
                    this.answer(message);
                else if (message.uri !== "") // frame packets are not for us
                    this.pushes.get(message.uri)?.(message);
            }
            catch (error) {
                this.events.fault("unreadable: " + error.message);
            }
        }
        answer(message) {
            const waiting = this.waiting.get(message.responseId);
            if (waiting === undefined || waiting.uri !== message.uri)
                throw new Error("an answer to nothing that was asked: " + message.uri);
            this.waiting.delete(message.responseId);
            if (message.header.success === true)
                waiting.resolve(message);
            else
                waiting.reject(new Refusal(textOf(message.header.error) || message.uri + " was refused"));
        }
        drop() {
            this.cancelLater();
            const socket = this.socket;
            this.socket = null;
            socket?.close();
            const waiting = [...this.waiting.values()];
            this.waiting.clear();
            for (const { reject } of waiting)
                reject(new Disconnected("the connection ended"));
        }
        lose(detail) {
            this.drop();
            const delay = this.delay;
            this.delay = Math.min(2 * delay, protocol.LongestDelay);
            this.cancelLater = this.surroundings.later(() => this.connect(), delay);
            this.setState("lost", detail);
        }
        end(state, detail) {
            this.drop();
            this.setState(state, detail);
        }
        setState(state, detail) {
            this.current = state;
            this.events.state(state, detail);
        }
    }
    protocol.Connection = Connection;
})(protocol || (protocol = {}));

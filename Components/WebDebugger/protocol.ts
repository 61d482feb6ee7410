/// The inspection protocol: envelopes, requests with their answers, pushes, and a connection that comes back. It needs no page: the
/// socket and the timer are handed in.
namespace protocol {
    /// In place of an id: none.
    export const None = 0xFFFFFFFF;
    const PreHeaderSize = 24;
    const Alignment = 32;
    const MaxHeaderSize = 1048576;

    export type Members = { readonly [member: string]: unknown };

    export interface Message {
        readonly messageId: number;
        readonly responseId: number;
        readonly uri: string;
        readonly header: Members;
        readonly payload: Uint8Array;
    }

    /// Pre-header, URI, header, and with a payload the padding up to the next multiple of 32 ahead of it.
    export function encode(messageId: number, responseId: number, uri: string, header: Members | null,
                           payload: Uint8Array = new Uint8Array(0)): Uint8Array {
        const encoder = new TextEncoder();
        const uriBytes = encoder.encode(uri);
        const headerBytes = encoder.encode(JSON.stringify(header) + "\n");
        const end = PreHeaderSize + uriBytes.length + headerBytes.length;
        const offset = payload.length === 0 ? 0 : Math.ceil(end / Alignment) * Alignment;
        const bytes = new Uint8Array(Math.max(end, offset + payload.length));
        const view = new DataView(bytes.buffer);
        [messageId, responseId, uriBytes.length, headerBytes.length, offset, payload.length].forEach(
            (field, i) => view.setUint32(4 * i, field, true));
        bytes.set(uriBytes, PreHeaderSize);
        bytes.set(headerBytes, PreHeaderSize + uriBytes.length);
        bytes.fill(0xAA, end, offset);
        bytes.set(payload, offset);
        return bytes;
    }

    /// @throws Error where the bytes are no message
    export function decode(buffer: ArrayBuffer): Message {
        if (buffer.byteLength < PreHeaderSize)
            throw new Error("a message without its pre-header");
        const view = new DataView(buffer);
        const [messageId, responseId, uriSize, headerSize, offset, size] =
            [0, 4, 8, 12, 16, 20].map((place) => view.getUint32(place, true)) as
            [number, number, number, number, number, number];
        if (headerSize > MaxHeaderSize)
            throw new Error("a message with a header of " + headerSize + " bytes");
        // Sums of two numbers of 32 bits are exact.
        if (PreHeaderSize + uriSize + headerSize > buffer.byteLength || offset + size > buffer.byteLength)
            throw new Error("a message that is cut short");
        const decoder = new TextDecoder("utf-8", { fatal: true });
        const text = (at: number, length: number): string => decoder.decode(new Uint8Array(buffer, at, length));
        const uri = text(PreHeaderSize, uriSize);
        const header: unknown = JSON.parse(text(PreHeaderSize + uriSize, headerSize));
        if (header !== null && !isMembers(header))
            throw new Error("a message whose header is no object");
        return {
            messageId, responseId, uri, header: header ?? {},
            payload: size === 0 ? new Uint8Array(0) : new Uint8Array(buffer, offset, size),
        };
    }

    // Members of headers, whatever the other side has sent.

    export function isMembers(value: unknown): value is Members {
        return typeof value === "object" && value !== null && !Array.isArray(value);
    }
    export function textOf(value: unknown): string {
        return typeof value === "string" ? value : typeof value === "number" || typeof value === "boolean" ? String(value) : "";
    }
    /// Also of the texts that stand for numbers which JSON has not; NaN for all else.
    export function numberOf(value: unknown): number {
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
    /// A number of things: an integer, 0 where there is none.
    export function countOf(value: unknown): number {
        const number = numberOf(value);
        return Number.isSafeInteger(number) && number > 0 ? number : 0;
    }
    export function listOf(value: unknown): Members[] {
        return Array.isArray(value) ? value.filter(isMembers) : [];
    }

    // Elements of buffers.

    const readers = new Map<string, { size: number; read(view: DataView, at: number): number | bigint }>(Object.entries({
        f32: { size: 4, read: (view: DataView, at: number) => view.getFloat32(at, true) },
        f64: { size: 8, read: (view: DataView, at: number) => view.getFloat64(at, true) },
        i8: { size: 1, read: (view: DataView, at: number) => view.getInt8(at) },
        u8: { size: 1, read: (view: DataView, at: number) => view.getUint8(at) },
        i16: { size: 2, read: (view: DataView, at: number) => view.getInt16(at, true) },
        u16: { size: 2, read: (view: DataView, at: number) => view.getUint16(at, true) },
        i32: { size: 4, read: (view: DataView, at: number) => view.getInt32(at, true) },
        u32: { size: 4, read: (view: DataView, at: number) => view.getUint32(at, true) },
        i64: { size: 8, read: (view: DataView, at: number) => view.getBigInt64(at, true) },
        u64: { size: 8, read: (view: DataView, at: number) => view.getBigUint64(at, true) },
    }));

    /// The elements that a header tells of, in the payload that came with it.
    export class Elements {
        readonly type: string;
        readonly component: string;
        /// Numbers at the beginning of each element; 0 where it is not made of one kind.
        readonly components: number;
        readonly count: number;
        readonly elementSize: number;
        private readonly view: DataView;
        private readonly texts: readonly unknown[] | null;

        /// @throws Error where the members do not fit one another or the payload
        constructor(header: Members, payload: Uint8Array) {
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

        at(index: number, component: number): number | bigint {
            const reader = readers.get(this.component);
            if (reader === undefined || component >= this.components)
                throw new RangeError("no such number: " + component);
            return reader.read(this.view, index * this.elementSize + component * reader.size);
        }
        numberAt(index: number, component: number): number {
            return Number(this.at(index, component));
        }
        /// For a person: an element that is not made of numbers, by its text or its bytes.
        textAt(index: number): string {
            if (this.texts !== null)
                return textOf(this.texts[index]);
            let text = "";
            for (let i = 0; i < Math.min(this.elementSize, 16); ++i)
                text += this.view.getUint8(index * this.elementSize + i).toString(16).padStart(2, "0") + " ";
            return text.trimEnd() + (this.elementSize > 16 ? " …" : "");
        }
        /// One number of each element, copied.
        column(component: number): Float64Array {
            const column = new Float64Array(this.count);
            for (let i = 0; i < this.count; ++i)
                column[i] = this.numberAt(i, component);
            return column;
        }
    }

    // Connection.

    /// What a connection needs of a WebSocket.
    export interface Socket {
        binaryType: string;
        onopen: (() => void) | null;
        onmessage: ((event: { data: unknown }) => void) | null;
        onclose: ((event: { code: number }) => void) | null;
        send(bytes: Uint8Array): void;
        close(): void;
    }

    export type State = "connecting" | "connected" | "lost" | "refused" | "closed";

    export interface Events {
        /// @param detail  for a person: why
        state(state: State, detail: string): void;
        /// What the other side did wrong, or said by a line of text.
        fault(text: string): void;
    }

    export interface Surroundings {
        open(): Socket;
        /// @return cancels
        later(action: () => void, milliseconds: number): () => void;
    }

    /// A request that was answered by an error.
    export class Refusal extends Error { }
    /// A request whose connection ended ahead of the answer.
    export class Disconnected extends Error { }

    export const FirstDelay = 250;
    export const LongestDelay = 8000;

    interface Waiting {
        readonly uri: string;
        resolve(message: Message): void;
        reject(error: Error): void;
    }

    /// Authenticates, and connects again for as long as it is not closed, each time after twice the delay. A token that is refused
    /// ends it: another try would be refused alike.
    export class Connection {
        private socket: Socket | null = null;
        private lastId = 0;
        private delay = FirstDelay;
        private cancelLater: () => void = () => undefined;
        private readonly waiting = new Map<number, Waiting>();
        private readonly pushes = new Map<string, (message: Message) => void>();
        private current: State = "closed";

        constructor(private readonly surroundings: Surroundings, private readonly token: string, private readonly events: Events) { }

        get state(): State {
            return this.current;
        }

        onPush(uri: string, handler: (message: Message) => void): void {
            this.pushes.set(uri, handler);
        }

        connect(): void {
            this.cancelLater();
            this.setState("connecting", "connecting");
            let socket: Socket;
            try {
                socket = this.surroundings.open();
            } catch (error) {
                this.end("closed", String(error));
                return;
            }
            this.socket = socket;
            this.lastId = 0;
            socket.binaryType = "arraybuffer";
            socket.onopen = () => {
                this.exchange("authenticate", { token: this.token }).then(() => {
                    this.delay = FirstDelay;
                    this.setState("connected", "connected");
                }, (error: Error) => {
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
        retry(): void {
            if (this.current === "lost")
                this.connect();
        }

        close(): void {
            this.end("closed", "closed");
        }

        /// @throws Refusal, Disconnected: by the promise
        request(uri: string, header: Members): Promise<Message> {
            return this.current === "connected" ? this.exchange(uri, header)
                : Promise.reject(new Disconnected("not connected"));
        }

        /// For what is never answered.
        tell(uri: string, header: Members): void {
            if (this.current === "connected" && this.socket !== null)
                this.socket.send(encode(++this.lastId, None, uri, header));
        }

        private exchange(uri: string, header: Members): Promise<Message> {
            return new Promise((resolve, reject) => {
                const id = ++this.lastId;
                this.waiting.set(id, { uri, resolve, reject });
                this.socket?.send(encode(id, None, uri, header));
            });
        }

        private receive(data: unknown): void {
            if (!(data instanceof ArrayBuffer)) {
                this.events.fault(textOf(data));
                return;
            }
            try {
                const message = decode(data);
                if (message.responseId !== None)
                    this.answer(message);
                else if (message.uri !== "") // frame packets are not for us
                    this.pushes.get(message.uri)?.(message);
            } catch (error) {
                this.events.fault("unreadable: " + (error as Error).message);
            }
        }

        private answer(message: Message): void {
            const waiting = this.waiting.get(message.responseId);
            if (waiting === undefined || waiting.uri !== message.uri)
                throw new Error("an answer to nothing that was asked: " + message.uri);
            this.waiting.delete(message.responseId);
            if (message.header.success === true)
                waiting.resolve(message);
            else
                waiting.reject(new Refusal(textOf(message.header.error) || message.uri + " was refused"));
        }

        private drop(): void {
            this.cancelLater();
            const socket = this.socket;
            this.socket = null;
            socket?.close();
            const waiting = [...this.waiting.values()];
            this.waiting.clear();
            for (const { reject } of waiting)
                reject(new Disconnected("the connection ended"));
        }

        private lose(detail: string): void {
            this.drop();
            const delay = this.delay;
            this.delay = Math.min(2 * delay, LongestDelay);
            this.cancelLater = this.surroundings.later(() => this.connect(), delay);
            this.setState("lost", detail);
        }

        private end(state: State, detail: string): void {
            this.drop();
            this.setState(state, detail);
        }

        private setState(state: State, detail: string): void {
            this.current = state;
            this.events.state(state, detail);
        }
    }
}

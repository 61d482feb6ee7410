// A simulation that is none: it serves the page and speaks the inspection protocol, as well as a test wants it to. What a true one cannot be made
// to do, it can: thousands of objects, answers that lie, a clock that stands still.
"use strict";
const fs = require("fs");
const http = require("http");
const path = require("path");
const { WebSocketServer } = require("ws");
const { load, pageFolder } = require("./load.js");
load("protocol.js");
const { encode, decode, None } = globalThis.protocol;
const { Recording, handlers: trackHandlers } = require("./mockTracks.js");

const types = { ".html": "text/html", ".js": "text/javascript", ".css": "text/css", ".svg": "image/svg+xml" };

function servePage() {
    const server = http.createServer((request, response) => {
        const name = new URL(request.url, "http://localhost").pathname;
        const file = path.join(pageFolder, name === "/" ? "index.html" : name);
        if (!fs.existsSync(file)) {
            response.writeHead(404).end();
            return;
        }
        response.writeHead(200, { "Content-Type": types[path.extname(file)] ?? "text/plain" }).end(fs.readFileSync(file));
    });
    return new Promise((resolve) => server.listen(0, "127.0.0.1", () => resolve(server)));
}

class Mock {
    constructor(options = {}) {
        this.options = { token: "secret", writable: true, bodies: 300, many: 2000, live: true, ...options };
        this.tracks = (this.options.recordings ?? []).map((recording, id) => new Recording(id, recording));
        this.clock = { path: "Simulation.clock", time: 0, frame: 0, frequency: 60, timeStep: 1 / 60, modulation: 1, enabled: true, master: "", pending: 0 };
        this.values = new Map([["Simulation.gravity", 9.81], ["Simulation.energy", -1], ["Simulation.wind", "1 2 3"], ["Simulation.label", "rover"]]);
        for (let i = 0; i < this.options.many; ++i)
            this.values.set("Simulation.many.value" + i, i);
        this.clients = new Set();
        this.requests = [];
        this.step();
    }

    async start() {
        this.http = this.http ?? await servePage();
        await this.listen(0);
        this.timer = setInterval(() => this.tick(), 1000 / 60);
    }
    listen(port) {
        this.sockets = new WebSocketServer({ host: "127.0.0.1", port, handleProtocols: () => "zel_stream" });
        this.sockets.on("connection", (socket) => this.accept(socket));
        return new Promise((resolve) => this.sockets.on("listening", () => {
            this.port = this.sockets.address().port;
            resolve();
        }));
    }
    get address() {
        return "http://127.0.0.1:" + this.http.address().port + "/";
    }
    /// The sockets alone: the page stays.
    hangUp() {
        for (const socket of this.sockets.clients)
            socket.terminate();
        return new Promise((resolve) => this.sockets.close(resolve));
    }
    async stop() {
        clearInterval(this.timer);
        await this.hangUp();
        this.http.closeAllConnections();
        await new Promise((resolve) => this.http.close(resolve));
    }

    accept(socket) {
        const client = { socket, isTrusted: false, nextId: 1, watches: new Map(), level: "none" };
        this.clients.add(client);
        socket.on("close", () => this.clients.delete(client));
        socket.on("message", (data) => {
            const message = decode(data.buffer.slice(data.byteOffset, data.byteOffset + data.byteLength));
            this.requests.push(message);
            if (message.uri === "authenticate") {
                client.isTrusted = message.header.token === this.options.token;
                socket.send(encode(client.nextId++, message.messageId, message.uri, { success: client.isTrusted }));
            } else if (!client.isTrusted) {
                socket.send("Error: not authenticated!");
            } else {
                this.answer(client, message);
            }
        });
    }
    answer(client, { uri, header, messageId }) {
        let [answer, payload] = [{}, undefined];
        try {
            const handler = this.options.handlers?.[uri] ?? this.handlers[uri];
            if (handler === undefined)
                throw new Error("ControlChannel: No message handler registered for uri: " + uri);
            [answer, payload] = [].concat(handler.call(this, header, client));
            if (answer === null)
                return;
            answer.success = true;
        } catch (error) {
            answer = { success: false, error: error.message };
        }
        client.socket.send(encode(client.nextId++, messageId, uri, answer, payload));
    }
    push(client, uri, header, payload) {
        client.socket.send(encode(client.nextId++, None, uri, header, payload));
    }
    log(level, text) {
        for (const client of this.clients)
            this.push(client, "Log.Line", { level, time: Date.now() / 1000, text });
    }

    // The model.

    step() {
        const { clock } = this;
        clock.frame += 1;
        clock.timeStep = clock.modulation / clock.frequency;
        clock.time += clock.timeStep;
        this.values.set("Simulation.energy", -1 + 0.1 * Math.sin(clock.time));
        this.columns = this.columns ?? { position: [], velocity: [], mass: [] };
        for (let i = 0; i < this.options.bodies; ++i) {
            const radius = 1 + i / 50;
            const angle = i + clock.time / radius;
            this.columns.position[i] = [radius * Math.cos(angle), radius * Math.sin(angle), 0.3 * Math.sin(3 * i)];
            this.columns.velocity[i] = [-Math.sin(angle), Math.cos(angle), 0];
            this.columns.mass[i] = [1 + i % 7];
        }
    }
    tick() {
        for (const track of this.tracks)
            if (!this.standsStill && track.advance(1 / 60))
                this.tellTrack(track);
        if (this.clock.pending > 0) {
            this.clock.pending -= 1;
            this.step();
        } else if (this.clock.enabled && !this.standsStill) {
            this.step();
        }
        for (const client of this.clients)
            for (const watch of client.watches.values())
                this.update(client, watch);
    }
    tellTrack(track) {
        for (const client of this.clients)
            if (client.hasTracks)
                this.push(client, "Track.State", { track: track.entry });
    }
    /// The recording that a path leads into.
    recordingOf(path) {
        return this.tracks.find((track) => track.open && (path === track.path || path.startsWith(track.path + ".")));
    }
    valueOf(path) {
        return this.recordingOf(path)?.value(path) ?? this.values.get(path);
    }
    update(client, watch) {
        if (watch.sequence - watch.acknowledged >= 2 || Date.now() - watch.sent < watch.interval)
            return;
        const [items, parts] = [[], []];
        let offset = 0;
        watch.paths.forEach((path, item) => {
            const isValue = this.valueOf(path) !== undefined;
            const known = isValue || this.buffer(path) !== null;
            const content = isValue ? this.valueOf(path) : known ? this.recordingOf(path)?.index ?? this.clock.frame : undefined;
            if (watch.known[item] === content)
                return;
            watch.known[item] = content;
            if (!known)
                items.push({ item, removed: true });
            else if (isValue)
                items.push({ item, value: content });
            else {
                const [elements, bytes] = this.read(path, watch);
                items.push({ item, ...elements, byteOffset: offset });
                parts.push(bytes);
                offset += bytes.length;
            }
        });
        if (items.length === 0)
            return;
        watch.sequence += 1;
        watch.sent = Date.now();
        const open = this.tracks.find((track) => track.open);
        const { path, time, frame } = this.options.live ? this.clock : { path: "", time: open?.entry.position.time, frame: open?.index };
        this.push(client, "Watch.Update", { watch: watch.watch, sequence: watch.sequence, clock: { path, time, frame }, items }, Buffer.concat(parts));
    }

    buffer(path) {
        const recording = this.recordingOf(path);
        if (recording !== undefined)
            return recording.buffer(path);
        const name = /^Simulation\.bodies\.(position|velocity|mass)$/.exec(path);
        return name === null ? null : this.columns[name[1]];
    }
    read(path, { begin = 0, count, stride = 1 }) {
        const elements = this.buffer(path);
        const chosen = elements.filter((_, i) => i >= begin && (i - begin) % stride === 0).slice(0, count);
        const components = elements[0].length;
        const elementSize = components === 1 ? 8 : 32;
        const bytes = Buffer.alloc(chosen.length * elementSize);
        chosen.forEach((element, i) => element.forEach((number, c) => bytes.writeDoubleLE(number, i * elementSize + 8 * c)));
        return [{
            type: components === 1 ? "Real:64bit" : "Vec3:64bit", elementSize, component: "f64", components, byteOffset: 0, numBytes: bytes.length,
            begin, count: chosen.length, stride, numElements: elements.length, revision: this.clock.frame,
        }, bytes];
    }

    children(path) {
        const component = (name, parent, numChildren) => ({ name, path: parent === "" ? name : parent + "." + name, model: "", implementation: "", kind: "component", numChildren });
        const value = (each) => ({
            name: each.slice(each.lastIndexOf(".") + 1), path: each, model: "zelData.Value", implementation: "", kind: "value", numChildren: 0,
            type: typeof this.values.get(each) === "number" ? "Real" : each.endsWith("wind") ? "Vec3" : "String", value: this.values.get(each),
        });
        const recording = this.recordingOf(path);
        if (recording !== undefined)
            return recording.children(path);
        switch (path) {
        case "":
            return [...this.options.live ? [component("Simulation", "", 7)] : [], ...this.tracks.filter(({ open }) => open).map((track) => component(track.path, "", 1))];
        case "Simulation":
            return [
                { name: "clock", path: "Simulation.clock", model: "zelEngine.Clock", implementation: "zelEngine::Clock", kind: "clock", numChildren: 0, enabled: this.clock.enabled },
                { ...component("bodies", path, 3), kind: "storage", numElements: this.options.bodies, capacity: 512, entity: "Body" },
                component("many", path, this.options.many),
                ...["gravity", "energy", "wind", "label"].map((name) => value("Simulation." + name)),
            ];
        case "Simulation.bodies":
            return ["position", "velocity", "mass"].map((name) => ({
                name, path: "Simulation.bodies." + name, model: "", implementation: "", kind: "buffer", numChildren: 0,
                type: name === "mass" ? "Real:64bit" : "Vec3:64bit", numElements: this.options.bodies,
            }));
        case "Simulation.many":
            return [...this.values.keys()].filter((each) => each.startsWith("Simulation.many.")).map(value);
        default:
            return [];
        }
    }
    entry(path, depth, begin, count) {
        const own = path === "" ? { name: "", path: "", model: "", implementation: "", kind: "component", numChildren: this.children("").length }
            : this.children(path.includes(".") ? path.slice(0, path.lastIndexOf(".")) : "").find((each) => each.path === path);
        if (own === undefined)
            throw new Error("There is no '" + path + "'");
        if (depth > 0)
            Object.assign(own, { begin, children: this.children(path).slice(begin, begin + count).map((each) => this.entry(each.path, depth - 1, 0, 100)) });
        return own;
    }
    changeOnly() {
        if (!this.options.writable)
            throw new Error("The service is not writable");
    }
}

Mock.prototype.handlers = {
    ...trackHandlers,
    "System.Info"() {
        return { protocol: 1, version: "0", pid: 4711, threads: 2, uptime: 1, writable: this.options.writable, callable: false, uris: [], streams: this.options.streams ?? [], tracks: this.tracks.length, limits: {} };
    },
    "Object.Describe"({ path, depth = 1, begin = 0, count = 1000 }) {
        return this.entry(path, depth, begin, count);
    },
    "Object.Complete"({ text, limit }) {
        const head = text.slice(0, text.lastIndexOf(".") + 1);
        const tail = text.slice(head.length).toLowerCase();
        const list = this.children(head.slice(0, -1)).map(({ name }) => name).filter((name) => name.toLowerCase().startsWith(tail)).sort().slice(0, limit);
        return { query: text, hasMatch: list.length > 0, matchedPath: "", uniqueMatchHasChildren: false, list };
    },
    "Value.Set"({ path, value }) {
        this.changeOnly();
        const number = Number(value);
        if (typeof this.values.get(path) === "number" && Number.isNaN(number))
            throw new Error("'" + value + "' is no Real");
        this.values.set(path, typeof this.values.get(path) === "number" ? number : String(value));
        return { value: this.values.get(path) };
    },
    "Buffer.Read"({ path, ...range }) {
        return this.read(path, range);
    },
    "Watch.Add"({ watch, paths, begin, count, stride, interval }, client) {
        client.watches.set(watch, { watch, paths, begin, count, stride, interval, sequence: 0, acknowledged: 0, sent: 0, known: [] });
        return { items: paths.map((path) => ({ path, kind: this.valueOf(path) !== undefined ? "value" : this.buffer(path) !== null ? "buffer" : "none", type: "" })) };
    },
    "Watch.Remove"({ watch }, client) {
        client.watches.delete(watch);
        return {};
    },
    "Watch.Ack"({ watch, sequence }, client) {
        const known = client.watches.get(watch);
        if (known !== undefined)
            known.acknowledged = sequence;
        return null;
    },
    "Clock.List"() {
        return { clocks: this.options.live ? [{ ...this.clock }] : [] };
    },
    "Clock.Control"({ action, count, time, value }) {
        this.changeOnly();
        const { clock } = this;
        if ((action === "frequency" || action === "modulation") && !(value > 0))
            throw new Error("The " + action + " must be above 0");
        if (action === "pause" || action === "step" || action === "stepTo") {
            clock.enabled = false;
            clock.pending = action === "step" ? count : action === "stepTo" ? Math.ceil((time - clock.time) / clock.timeStep) : 0;
        } else if (action === "run")
            clock.enabled = true;
        else
            clock[action] = value;
        return { clock: { ...clock } };
    },
    "Log.Subscribe"({ level }, client) {
        client.level = level;
        return {};
    },
};

module.exports = { Mock };

// Recordings that are none, for mock.js: bodies on circles, whose energy swings, as functions of the frame.
"use strict";

class Recording {
    constructor(id, options) {
        Object.assign(this, { name: "run " + id, frames: 600, timeStep: 1 / 60, startTime: 0, bodies: 300, amplitude: 0.1, closed: true, open: false, ...options });
        Object.assign(this, { id, path: options.path ?? "Recording" + id, index: 0, playing: false, rate: 1, stride: 1, loop: false, range: null, error: "" });
    }
    timeOf(index) {
        return this.startTime + index * this.timeStep;
    }
    get endTime() {
        return this.timeOf(this.frames - 1);
    }
    indexAt(time) {
        return Math.max(0, Math.min(this.frames - 1, Math.floor((time - this.startTime) / this.timeStep + 1e-9)));
    }
    get span() {
        return this.range ?? { start: this.startTime, end: this.endTime };
    }
    get entry() {
        return {
            id: this.id, name: this.name, live: false, open: this.open, path: this.path, session: "Session", file: this.name + ".zelJournal", closed: this.closed,
            numFrames: this.frames, firstFrame: 0, lastFrame: this.frames - 1, startTime: this.startTime, endTime: this.endTime, timeStep: this.timeStep,
            position: this.open ? { frame: this.index, time: this.timeOf(this.index), index: this.index } : null,
            playing: this.playing, rate: this.rate, stride: this.stride, loop: this.loop, range: this.span, error: this.error,
        };
    }

    control({ action, rate, frame, time, count, loop, start, end, stride }) {
        const isFirst = !this.open;
        this.open = action !== "close";
        if (isFirst)
            this.index = 0;
        switch (action) {
        case "open":
            if (!this.closed && !isFirst)
                this.frames += this.growth ?? 0;
            break;
        case "close":
        case "pause":
            this.playing = false;
            break;
        case "play":
            this.rate = rate ?? this.rate;
            this.playing = true;
            if (this.rate > 0 ? this.timeOf(this.index) >= this.span.end : this.timeOf(this.index) <= this.span.start)
                this.index = this.indexAt(this.rate > 0 ? this.span.start : this.span.end);
            this.shown = this.timeOf(this.index);
            break;
        case "seek":
        case "seekTime":
        case "step":
            this.playing = false;
            this.index = action === "seekTime" ? this.indexAt(time) : Math.max(0, Math.min(this.frames - 1, action === "seek" ? frame : this.index + count * this.stride));
            break;
        case "loop":
            this.loop = loop;
            break;
        case "stride":
            this.stride = stride;
            break;
        case "range":
            this.range = start === undefined && end === undefined ? null : { start: start ?? this.startTime, end: end ?? this.endTime };
            break;
        default:
            throw new Error("There is no action '" + action + "'");
        }
        return { track: this.entry };
    }
    /// @return whether it has moved
    advance(seconds) {
        if (!this.playing)
            return false;
        this.shown += seconds * this.rate;
        const { start, end } = this.span;
        if (this.rate > 0 ? this.shown >= end : this.shown <= start) {
            this.shown = this.loop === (this.rate > 0) ? start : end;
            this.playing = this.loop;
        }
        this.index = this.indexAt(this.shown);
        return true;
    }

    // Its objects.

    energyAt(index) {
        return -1 + this.amplitude * Math.sin(3 * this.timeOf(index));
    }
    placeAt(index, body) {
        const radius = 1 + body / 50;
        const angle = body + this.timeOf(index) / radius;
        return [radius * Math.cos(angle), radius * Math.sin(angle), 0.3 * Math.sin(3 * body)];
    }
    value(path) {
        return path === this.path + ".Simulation.energy" ? this.energyAt(this.index) : undefined;
    }
    buffer(path) {
        const all = (of) => Array.from({ length: this.bodies }, (_, i) => of(i));
        return path === this.path + ".Simulation.bodies.position" ? all((i) => this.placeAt(this.index, i))
            : path === this.path + ".Simulation.bodies.speed" ? all((i) => [this.amplitude * (1 + i)]) : null;
    }
    children(path) {
        const component = (name, parent, numChildren, more = {}) => ({ name, path: parent + "." + name, model: "", implementation: "", kind: "component", numChildren, ...more });
        switch (path.slice(this.path.length)) {
        case "":
            return [component("Simulation", path, 2)];
        case ".Simulation":
            return [
                component("bodies", path, 2, { kind: "storage", numElements: this.bodies, capacity: 512, entity: "Body" }),
                component("energy", path, 0, { kind: "value", type: "Real", value: this.energyAt(this.index) }),
            ];
        case ".Simulation.bodies":
            return [["position", "Vec3:64bit"], ["speed", "Real:64bit"]].map(([name, type]) => component(name, path, 0, { kind: "buffer", type, numElements: this.bodies }));
        default:
            return [];
        }
    }

    // Over the whole run.

    rows({ path, index }) {
        const number = path === this.path + ".Simulation.energy" ? (frame) => [this.energyAt(frame)]
            : path === this.path + ".Simulation.bodies.position" && index < this.bodies ? (frame) => this.placeAt(frame, index) : null;
        return number;
    }
}

/// The least and the greatest of each group, one after the other.
function group(frames, numbers, framesPerPoint) {
    const rows = [];
    for (let begin = 0; begin < frames.length; begin += 2 * framesPerPoint) {
        const part = frames.slice(begin, begin + 2 * framesPerPoint).map(numbers);
        const ends = part[0].map((_, c) => {
            const all = part.map((row) => row[c]);
            const [least, greatest] = [Math.min(...all), Math.max(...all)];
            return all.indexOf(least) <= all.indexOf(greatest) ? [least, greatest] : [greatest, least];
        });
        rows.push(ends.map(([first]) => first), ends.map(([, second]) => second));
    }
    return rows;
}

function pieces(recording, { items, start = -Infinity, end = Infinity, points }) {
    const frames = Array.from({ length: recording.frames }, (_, i) => i).filter((i) => recording.timeOf(i) >= start && recording.timeOf(i) <= end);
    const framesPerPoint = Math.max(1, Math.ceil(frames.length / points));
    const isExact = framesPerPoint === 1;
    const times = isExact ? frames.map((i) => recording.timeOf(i)) : frames.filter((_, i) => i % framesPerPoint === 0).map((i) => recording.timeOf(i));
    const columns = items.map((item) => {
        const numbers = recording.rows(item);
        return numbers === null ? null : isExact ? frames.map(numbers) : group(frames, numbers, framesPerPoint).slice(0, times.length);
    });
    return { numFrames: frames.length, framesPerPoint, times, columns };
}

const handlers = {
    "Track.List"(_, client) {
        client.hasTracks = true;
        return { tracks: this.tracks.map(({ entry }) => entry) };
    },
    "Track.Control"({ id, ...members }) {
        const track = this.tracks[id];
        if (track === undefined)
            throw new Error("There is no track " + id);
        const answer = track.control(members);
        this.tellTrack(track);
        return answer;
    },
    "Track.Series"({ id, series, ...request }, client) {
        const { numFrames, framesPerPoint, times, columns } = pieces(this.tracks[id], request);
        const size = Math.ceil(times.length / 5) || 1;
        const send = (first) => {
            if (client.stopped?.has(series) || client.socket.readyState !== 1)
                return;
            const count = Math.min(size, times.length - first);
            const parts = [Buffer.from(Float64Array.from(times.slice(first, first + count)).buffer)];
            let offset = parts[0].length;
            const items = columns.map((rows, item) => {
                if (rows === null)
                    return { item, error: "There is no '" + request.items[item].path + "'" };
                const bytes = Buffer.from(Float64Array.from(rows.slice(first, first + count).flat()).buffer);
                parts.push(bytes);
                offset += bytes.length;
                return { item, components: rows[0].length, byteOffset: offset - bytes.length, numBytes: bytes.length, ...request.items[item].index === undefined ? {} : { id: 1000 + request.items[item].index } };
            });
            const done = first + count >= times.length;
            this.push(client, "Track.Points", { series, first, count, done, times: { byteOffset: 0, numBytes: parts[0].length }, items }, Buffer.concat(parts));
            if (!done)
                setTimeout(() => send(first + count), this.options.pieceDelay ?? 5);
        };
        setTimeout(() => send(0), 1);
        return { numFrames, framesPerPoint, start: times[0] ?? 0, end: times[times.length - 1] ?? 0 };
    },
    "Track.StopSeries"({ series }, client) {
        (client.stopped = client.stopped ?? new Set()).add(series);
        return {};
    },
    "Statistics.List"() {
        const tasks = [["Integrate", 4.2], ["Collide", 2.9], ["Tree", 0.8], ["Emit", 0.05], ["Write frames", 0.3], ["Contacts", 1.3]];
        const seconds = Date.now() / 1000;
        return {
            enabled: this.options.statistics ?? true,
            providers: tasks.map(([name, each]) => ({
                name, path: "Simulation/" + name, depth: 1,
                data: ["ComputeCost", "WallTime", "Overhead"].map((what) => ({
                    name: what, timing: true, value: each, accumulated: what === "WallTime" ? each * Math.floor(60 * seconds) : 0, count: what === "WallTime" ? Math.floor(60 * seconds) : 0,
                })),
            })),
        };
    },
};

module.exports = { Recording, handlers };

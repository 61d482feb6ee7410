"use strict";
/// The elements of a buffer of positions as points in space, live.
var particlePanel;
(function (particlePanel) {
    var el = ui.el;
    /// Above it, only each n-th element is asked for.
    const MaxPoints = 100000;
    const Tangent = Math.tan(Math.PI / 8);
    function suits(entry) {
        return entry.kind === "buffer" && /Vec[23]/.test(entry.type);
    }
    particlePanel.suits = suits;
    const Projection = `
        uniform vec3 u_right, u_up, u_forward, u_target;
        uniform vec2 u_extent;
        uniform float u_distance;
        vec4 project(vec3 place) {
            vec3 q = place - u_target;
            float depth = u_distance + dot(u_forward, q);
            float near = 0.01 * u_distance, far = 1000.0 * u_distance;
            return vec4(dot(u_right, q) / u_extent.x, dot(u_up, q) / u_extent.y,
                depth * (far + near) / (far - near) - 2.0 * far * near / (far - near), depth);
        }`;
    const PointVertex = `#version 300 es
        ${Projection}
        in vec3 a_place;
        in float a_value;
        uniform float u_size;
        out float v_value;
        void main() {
            gl_Position = project(a_place);
            gl_PointSize = clamp(u_size * u_distance / max(gl_Position.w, 1e-6), 1.5, 64.0);
            v_value = a_value;
        }`;
    // From dark blue over green to yellow; a value below 0 is of no buffer.
    const PointFragment = `#version 300 es
        precision mediump float;
        in float v_value;
        uniform vec3 u_color;
        out vec4 o_color;
        vec3 ramp(float t) {
            vec3 a = vec3(0.22, 0.25, 0.75), b = vec3(0.1, 0.6, 0.65), c = vec3(0.35, 0.75, 0.35), d = vec3(0.98, 0.8, 0.15);
            return t < 0.33 ? mix(a, b, t / 0.33) : t < 0.66 ? mix(b, c, (t - 0.33) / 0.33) : mix(c, d, (t - 0.66) / 0.34);
        }
        void main() {
            vec2 q = 2.0 * gl_PointCoord - 1.0;
            float r = dot(q, q);
            if (r > 1.0)
                discard;
            vec3 color = v_value < 0.0 ? u_color : ramp(clamp(v_value, 0.0, 1.0));
            o_color = vec4(color * (1.0 - 0.35 * r), 1.0);
        }`;
    const LineVertex = `#version 300 es
        ${Projection}
        in vec3 a_place;
        in vec3 a_color;
        out vec3 v_color;
        void main() {
            gl_Position = project(a_place);
            v_color = a_color;
        }`;
    const LineFragment = `#version 300 es
        precision mediump float;
        in vec3 v_color;
        out vec4 o_color;
        void main() { o_color = vec4(v_color, 1.0); }`;
    /// Draws points that lie around the origin with a radius of about 1.
    class Scene {
        /// @throws Error where the graphics do not do what is needed
        constructor(gl) {
            this.gl = gl;
            this.target = [0, 0, 0];
            this.distance = 3;
            this.yaw = 0.6;
            this.pitch = 0.5;
            this.size = 6;
            this.count = 0;
            this.points = this.program(PointVertex, PointFragment);
            this.lines = this.program(LineVertex, LineFragment);
            this.pointArray = this.made(gl.createVertexArray());
            this.lineArray = this.made(gl.createVertexArray());
            this.places = this.made(gl.createBuffer());
            this.values = this.made(gl.createBuffer());
            gl.bindVertexArray(this.pointArray);
            this.attribute(this.points, "a_place", this.places, 3);
            this.attribute(this.points, "a_value", this.values, 1);
            gl.bindVertexArray(this.lineArray);
            const axes = new Float32Array([0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1].map((place) => 0.35 * place));
            const colors = new Float32Array([0.9, 0.25, 0.25, 0.9, 0.25, 0.25, 0.2, 0.65, 0.3, 0.2, 0.65, 0.3, 0.3, 0.45, 0.95, 0.3, 0.45, 0.95]);
            for (const [name, data] of [["a_place", axes], ["a_color", colors]]) {
                const buffer = this.made(gl.createBuffer());
                gl.bindBuffer(gl.ARRAY_BUFFER, buffer);
                gl.bufferData(gl.ARRAY_BUFFER, data, gl.STATIC_DRAW);
                this.attribute(this.lines, name, buffer, 3);
            }
            gl.bindVertexArray(null);
            gl.enable(gl.DEPTH_TEST);
        }
        set(places, values) {
            const { gl } = this;
            this.count = values.length;
            gl.bindBuffer(gl.ARRAY_BUFFER, this.places);
            gl.bufferData(gl.ARRAY_BUFFER, places, gl.DYNAMIC_DRAW);
            gl.bindBuffer(gl.ARRAY_BUFFER, this.values);
            gl.bufferData(gl.ARRAY_BUFFER, values, gl.DYNAMIC_DRAW);
        }
        /// The directions to the right, upwards and away from the eye.
        get axes() {
            const [cy, sy, cp, sp] = [Math.cos(this.yaw), Math.sin(this.yaw), Math.cos(this.pitch), Math.sin(this.pitch)];
            return { right: [-sy, cy, 0], up: [-sp * cy, -sp * sy, cp], forward: [-cp * cy, -cp * sy, -sp] };
        }
        /// Moves what is seen by parts of the shorter side of the picture.
        pan(x, y) {
            const { right, up } = this.axes;
            const step = 2 * Tangent * this.distance;
            for (let i = 0; i < 3; ++i)
                this.target[i] -= step * (x * right[i] - y * up[i]);
        }
        draw(color) {
            const { gl } = this;
            const { canvas } = gl;
            gl.viewport(0, 0, canvas.width, canvas.height);
            gl.clearColor(0, 0, 0, 0);
            gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
            const { right, up, forward } = this.axes;
            for (const program of [this.lines, this.points]) {
                gl.useProgram(program);
                const at = (name) => gl.getUniformLocation(program, name);
                gl.uniform3fv(at("u_right"), right);
                gl.uniform3fv(at("u_up"), up);
                gl.uniform3fv(at("u_forward"), forward);
                gl.uniform3fv(at("u_target"), this.target);
                gl.uniform1f(at("u_distance"), this.distance);
                const side = Math.min(canvas.width, canvas.height);
                gl.uniform2f(at("u_extent"), Tangent * canvas.width / side, Tangent * canvas.height / side);
                if (program === this.points) {
                    gl.uniform1f(at("u_size"), this.size * devicePixelRatio);
                    gl.uniform3fv(at("u_color"), color);
                    gl.bindVertexArray(this.pointArray);
                    gl.drawArrays(gl.POINTS, 0, this.count);
                }
                else {
                    gl.bindVertexArray(this.lineArray);
                    gl.drawArrays(gl.LINES, 0, 6);
                }
            }
        }
        made(thing) {
            if (thing === null)
                throw new Error("The graphics have no memory left.");
            return thing;
        }
        attribute(program, name, buffer, components) {
            const { gl } = this;
            const place = gl.getAttribLocation(program, name);
            gl.bindBuffer(gl.ARRAY_BUFFER, buffer);
            gl.enableVertexAttribArray(place);
            gl.vertexAttribPointer(place, components, gl.FLOAT, false, 0, 0);
        }
        program(vertex, fragment) {
            const { gl } = this;
            const program = this.made(gl.createProgram());
            for (const [type, source] of [[gl.VERTEX_SHADER, vertex], [gl.FRAGMENT_SHADER, fragment]]) {
                const shader = this.made(gl.createShader(type));
                gl.shaderSource(shader, source);
                gl.compileShader(shader);
                gl.attachShader(program, shader);
            }
            gl.linkProgram(program);
            if (gl.getProgramParameter(program, gl.LINK_STATUS) !== true)
                throw new Error("The graphics refuse the program: " + (gl.getProgramInfoLog(program) ?? ""));
            return program;
        }
    }
    class Panel {
        constructor(root, session, all) {
            this.session = session;
            this.positions = el("select", { id: "positions", "aria-label": "Buffer of positions" });
            this.colors = el("select", { id: "colors", "aria-label": "Buffer of colours" });
            this.size = el("input", { id: "point-size", type: "range", min: "1", max: "24", value: "6", "aria-label": "Size of points", title: "Size of points" });
            this.canvas = el("canvas", {
                id: "particles-canvas", tabindex: "0", role: "img",
                "aria-label": "Particles. Arrow keys turn, with shift they move, plus and minus zoom, F fits all into the picture",
            });
            this.legend = el("p", { class: "legend", id: "particles-legend" });
            this.scaleBar = el("div", { class: "scale" });
            this.error = el("p", { class: "error", role: "alert" });
            this.hint = el("p", { class: "hint" }, "No buffer of positions yet: choose one with two or three numbers an element.");
            this.known = new Map();
            this.scene = null;
            this.place = null;
            this.color = null;
            this.origin = [0, 0, 0];
            this.radius = 0;
            this.isFlat = false;
            this.isVisible = false;
            this.pointers = new Map();
            this.draw = () => this.render();
            this.upload = () => {
                const elements = this.place?.elements ?? null;
                if (this.scene === null)
                    return;
                const components = elements?.components ?? 0;
                if (elements === null || components < 2) {
                    this.scene.count = 0;
                    ui.setText(this.legend, elements === null ? "" : "This buffer has " + components + " numbers an element; two or three make a position.");
                    this.render();
                    return;
                }
                this.isFlat = components === 2;
                const columns = [elements.column(0), elements.column(1), components > 2 ? elements.column(2) : new Float64Array(elements.count)];
                if (this.radius === 0)
                    this.measure(columns);
                const colors = this.colorValues(elements.count);
                const places = new Float32Array(3 * elements.count);
                const values = new Float32Array(elements.count);
                let shown = 0;
                for (let i = 0; i < elements.count; ++i) {
                    if (!Number.isFinite(columns[0][i] + columns[1][i] + columns[2][i]))
                        continue;
                    for (let axis = 0; axis < 3; ++axis)
                        places[3 * shown + axis] = (columns[axis][i] - this.origin[axis]) / this.radius;
                    values[shown++] = colors.values === null ? -1 : colors.values[i];
                }
                this.scene.set(places.subarray(0, 3 * shown), values.subarray(0, shown));
                const stride = this.place.stride;
                ui.setText(this.legend, shown + " of " + this.place.numElements + (stride > 1 ? ", one in " + stride : "") + colors.text);
                this.render();
            };
            root.append(el("header", {}, el("h2", {}, "Particles"), this.positions, el("label", {}, "by ", this.colors), this.size, ui.button("Fit", "All into the picture (F)", () => this.fit())), this.error, this.hint, el("div", { class: "view" }, this.canvas, this.legend, this.scaleBar));
            this.watch = session.subscribe((update) => this.take(update), (text) => ui.setText(this.error, text));
            this.positions.addEventListener("change", () => this.choose());
            this.colors.addEventListener("change", () => this.look());
            this.size.addEventListener("input", () => {
                if (this.scene !== null)
                    this.scene.size = Number(this.size.value);
                ui.drawSoon(this.draw);
            });
            this.openScene();
            this.listen();
            session.described.add((entry) => this.learn(entry));
            session.particlesAsked.add((entry) => {
                this.learn(entry);
                this.positions.value = entry.path;
                this.choose();
            });
            session.stateChanged.add(() => {
                if (session.isConnected && this.known.size === 0)
                    void this.search("");
            });
            all.opened.add((track) => {
                if (track.isOpen)
                    void this.search(track.path);
                else
                    this.forget(track.path);
            });
            new ResizeObserver(() => ui.drawSoon(this.draw)).observe(this.canvas);
            new IntersectionObserver(([entry]) => {
                this.isVisible = entry.isIntersecting;
                this.look();
            }).observe(this.canvas);
        }
        redraw() {
            ui.drawSoon(this.draw);
        }
        // Which buffers.
        openScene() {
            const gl = this.canvas.getContext("webgl2");
            try {
                if (gl === null)
                    throw new Error("This browser has no WebGL 2.");
                this.scene = new Scene(gl);
            }
            catch (error) {
                ui.setText(this.error, error.message);
            }
            this.canvas.addEventListener("webglcontextlost", (event) => {
                event.preventDefault();
                this.scene = null;
                ui.setText(this.error, "The graphics were lost.");
            });
            this.canvas.addEventListener("webglcontextrestored", () => {
                ui.setText(this.error, "");
                this.scene = gl === null ? null : new Scene(gl);
                this.fit();
            });
        }
        async search(path) {
            try {
                await this.session.describe(path, 3, 0, 100); // the answer comes to `learn`
            }
            catch (error) {
                ui.setText(this.error, error.message);
            }
        }
        learn(entry) {
            const before = this.known.size;
            const visit = (each) => {
                if (each.kind === "buffer")
                    this.known.set(each.path, each);
                each.children?.forEach(visit);
            };
            visit(entry);
            if (this.known.size !== before)
                this.offer();
        }
        /// The objects of a recording that was closed.
        forget(path) {
            for (const each of [...this.known.keys()])
                if (each.startsWith(path + "."))
                    this.known.delete(each);
            this.offer();
        }
        offer() {
            const chosen = this.positions.value;
            // What is called a position comes first, and then the largest: likely what somebody wants to see.
            const rank = (each) => (/pos/i.test(each.name) ? 1e12 : 0) + (each.numElements ?? 0);
            const suitable = [...this.known.values()].filter(suits).sort((a, b) => rank(b) - rank(a)).map(({ path }) => path);
            this.positions.replaceChildren(...suitable.map((path) => el("option", { value: path }, path)));
            this.positions.value = suitable.includes(chosen) ? chosen : suitable[0] ?? "";
            this.hint.hidden = suitable.length > 0;
            if (this.positions.value !== chosen)
                this.choose();
            else
                this.offerColors();
        }
        choose() {
            this.positions.title = this.positions.value;
            this.radius = 0;
            this.place = this.color = null;
            this.offerColors();
            this.look();
        }
        /// The buffers beside the positions.
        offerColors() {
            const parent = (path) => path.slice(0, path.lastIndexOf(".") + 1);
            const paths = [...this.known.keys()].filter((path) => parent(path) === parent(this.positions.value) && path !== this.positions.value).sort();
            const chosen = this.colors.value;
            this.colors.replaceChildren(el("option", { value: "" }, "one colour"), ...paths.map((path) => el("option", { value: path }, path.slice(path.lastIndexOf(".") + 1))));
            this.colors.value = paths.includes(chosen) ? chosen : "";
        }
        look() {
            const path = this.positions.value;
            if (path === "" || !this.isVisible) {
                this.watch.set(null);
                return;
            }
            const count = this.known.get(path)?.numElements ?? 0;
            this.color = null;
            this.watch.set({
                paths: this.colors.value === "" ? [path] : [path, this.colors.value], stride: Math.max(1, Math.ceil(count / MaxPoints)),
                interval: count > 20000 ? 66 : 16,
            });
        }
        // What comes.
        take({ items }) {
            for (const item of items) {
                const content = item.removed ? null : item;
                if (item.path === this.positions.value)
                    this.place = content;
                else
                    this.color = content;
            }
            ui.drawSoon(this.upload);
        }
        /// Between 0 and 1, by the amount of each element, as a logarithm where it spans more than three decades.
        colorValues(count) {
            const elements = this.color?.elements ?? null;
            if (elements === null || elements.components === 0)
                return { values: null, text: "" };
            const values = new Float64Array(count).fill(-1);
            let [least, most] = [Infinity, -Infinity];
            for (let i = 0; i < Math.min(count, elements.count); ++i) {
                let square = 0;
                for (let c = 0; c < elements.components; ++c)
                    square += elements.numberAt(i, c) ** 2;
                const value = values[i] = elements.components === 1 ? elements.numberAt(i, 0) : Math.sqrt(square);
                least = Math.min(least, value);
                most = Math.max(most, value);
            }
            const isLogarithmic = least > 0 && most / least > 1000;
            const scaled = (value) => isLogarithmic ? Math.log(value) : value;
            // What differs by rounding alone is one colour.
            const span = most - least > 1e-9 * Math.abs(most) ? scaled(most) - scaled(least) : Infinity;
            for (let i = 0; i < Math.min(count, elements.count); ++i)
                values[i] = (scaled(values[i]) - scaled(least)) / span;
            return { values, text: "; " + this.colors.selectedOptions[0].text + " " + ui.number(least, 4) + " to " + ui.number(most, 4) + (isLogarithmic ? " (logarithm)" : "") };
        }
        measure(columns) {
            columns.forEach((column, axis) => {
                let [least, most] = [Infinity, -Infinity];
                for (const value of column)
                    if (Number.isFinite(value)) {
                        least = Math.min(least, value);
                        most = Math.max(most, value);
                    }
                this.origin[axis] = least <= most ? least / 2 + most / 2 : 0;
            });
            const [x, y, z] = columns;
            this.radius = 0;
            for (let i = 0; i < x.length; ++i) {
                const distance = Math.hypot(x[i] - this.origin[0], y[i] - this.origin[1], z[i] - this.origin[2]);
                if (Number.isFinite(distance))
                    this.radius = Math.max(this.radius, distance);
            }
            this.radius = this.radius || 1;
            const { scene } = this;
            if (scene === null)
                return;
            scene.target.fill(0);
            scene.distance = 2.65;
            if (this.isFlat) {
                scene.yaw = -Math.PI / 2;
                scene.pitch = Math.PI / 2;
            }
        }
        fit() {
            this.radius = 0;
            ui.drawSoon(this.upload);
        }
        // The picture.
        render() {
            const { canvas, scene } = this;
            if (scene === null || canvas.clientWidth === 0)
                return;
            const width = Math.round(canvas.clientWidth * devicePixelRatio);
            const height = Math.round(canvas.clientHeight * devicePixelRatio);
            if (canvas.width !== width || canvas.height !== height)
                [canvas.width, canvas.height] = [width, height];
            const accent = parseInt(ui.color("--accent").slice(1), 16);
            scene.draw([accent >> 16 & 255, accent >> 8 & 255, accent & 255].map((part) => part / 255));
            // A length of 1, 2 or 5 times a power of ten.
            const unitsPerPixel = 2 * Tangent * scene.distance * this.radius / this.side;
            const most = 120 * unitsPerPixel;
            const power = 10 ** Math.floor(Math.log10(most));
            const length = Number.isFinite(power) && power > 0 ? power * (most >= 5 * power ? 5 : most >= 2 * power ? 2 : 1) : 0;
            this.scaleBar.hidden = length === 0 || scene.count === 0;
            this.scaleBar.style.width = length / unitsPerPixel + "px";
            ui.setText(this.scaleBar, ui.number(length, 3));
        }
        get side() {
            return Math.max(1, Math.min(this.canvas.clientWidth, this.canvas.clientHeight));
        }
        turn(x, y) {
            if (this.scene === null)
                return;
            if (this.isFlat) {
                this.scene.pan(x, y);
            }
            else {
                this.scene.yaw -= 4 * x;
                this.scene.pitch = Math.max(-1.57, Math.min(1.57, this.scene.pitch + 4 * y));
            }
            ui.drawSoon(this.draw);
        }
        zoom(factor) {
            if (this.scene !== null)
                this.scene.distance = Math.max(1e-4, Math.min(1e3, this.scene.distance * factor));
            ui.drawSoon(this.draw);
        }
        pan(x, y) {
            this.scene?.pan(x, y);
            ui.drawSoon(this.draw);
        }
        listen() {
            const { canvas, pointers } = this;
            canvas.addEventListener("pointerdown", (event) => {
                canvas.setPointerCapture(event.pointerId);
                pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
            });
            const drop = (event) => pointers.delete(event.pointerId);
            canvas.addEventListener("pointerup", drop);
            canvas.addEventListener("pointercancel", drop);
            canvas.addEventListener("pointermove", (event) => {
                const before = pointers.get(event.pointerId);
                if (before === undefined)
                    return;
                const [x, y] = [(event.clientX - before.x) / this.side, (event.clientY - before.y) / this.side];
                const other = [...pointers].find(([id]) => id !== event.pointerId)?.[1];
                if (other !== undefined)
                    this.zoom(Math.hypot(before.x - other.x, before.y - other.y) / Math.max(1, Math.hypot(event.clientX - other.x, event.clientY - other.y)));
                else if (event.shiftKey || event.buttons === 2)
                    this.pan(x, y);
                else
                    this.turn(x, y);
                pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
            });
            canvas.addEventListener("contextmenu", (event) => event.preventDefault());
            canvas.addEventListener("wheel", (event) => {
                this.zoom(Math.exp(Math.max(-1, Math.min(1, event.deltaY / 400))));
                event.preventDefault();
            }, { passive: false });
            canvas.addEventListener("keydown", (event) => {
                const step = 0.04;
                const arrows = {
                    ArrowLeft: [-step, 0], ArrowRight: [step, 0], ArrowUp: [0, -step], ArrowDown: [0, step],
                };
                const arrow = arrows[event.key];
                if (arrow !== undefined)
                    event.shiftKey ? this.pan(...arrow) : this.turn(...arrow);
                else if (event.key === "+" || event.key === "-")
                    this.zoom(event.key === "+" ? 0.9 : 1 / 0.9);
                else if (event.key === "f" || event.key === "F")
                    this.fit();
                else
                    return;
                event.preventDefault();
                event.stopPropagation();
            });
        }
    }
    particlePanel.Panel = Panel;
})(particlePanel || (particlePanel = {}));

"use strict";
/// Points in space as a picture.
var particleScene;
(function (particleScene) {
    particleScene.Tangent = Math.tan(Math.PI / 8);
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
    /// Where points are looked at from; two pictures may share it.
    class Camera {
        constructor() {
            this.target = [0, 0, 0];
            this.distance = 3;
            this.yaw = 0.6;
            this.pitch = 0.5;
        }
        /// The directions to the right, upwards and away from the eye.
        get axes() {
            const [cy, sy, cp, sp] = [Math.cos(this.yaw), Math.sin(this.yaw), Math.cos(this.pitch), Math.sin(this.pitch)];
            return { right: [-sy, cy, 0], up: [-sp * cy, -sp * sy, cp], forward: [-cp * cy, -cp * sy, -sp] };
        }
        /// Moves what is seen by parts of the shorter side of the picture.
        pan(x, y) {
            const { right, up } = this.axes;
            const step = 2 * particleScene.Tangent * this.distance;
            for (let i = 0; i < 3; ++i)
                this.target[i] -= step * (x * right[i] - y * up[i]);
        }
        turn(x, y) {
            this.yaw -= 4 * x;
            this.pitch = Math.max(-1.57, Math.min(1.57, this.pitch + 4 * y));
        }
        zoom(factor) {
            this.distance = Math.max(1e-4, Math.min(1e3, this.distance * factor));
        }
    }
    particleScene.Camera = Camera;
    /// Draws points that lie around the origin with a radius of about 1.
    class Scene {
        /// @throws Error where the graphics do not do what is needed
        constructor(gl) {
            this.gl = gl;
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
        draw(camera, size, color) {
            const { gl } = this;
            const { canvas } = gl;
            gl.viewport(0, 0, canvas.width, canvas.height);
            gl.clearColor(0, 0, 0, 0);
            gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
            const { right, up, forward } = camera.axes;
            for (const program of [this.lines, this.points]) {
                gl.useProgram(program);
                const at = (name) => gl.getUniformLocation(program, name);
                gl.uniform3fv(at("u_right"), right);
                gl.uniform3fv(at("u_up"), up);
                gl.uniform3fv(at("u_forward"), forward);
                gl.uniform3fv(at("u_target"), camera.target);
                gl.uniform1f(at("u_distance"), camera.distance);
                const side = Math.min(canvas.width, canvas.height);
                gl.uniform2f(at("u_extent"), particleScene.Tangent * canvas.width / side, particleScene.Tangent * canvas.height / side);
                if (program === this.points) {
                    gl.uniform1f(at("u_size"), size * devicePixelRatio);
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
    particleScene.Scene = Scene;
})(particleScene || (particleScene = {}));

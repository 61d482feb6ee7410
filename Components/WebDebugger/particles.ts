/// The elements of a buffer of positions as points in space, live. Those of two recordings stand side by side, seen from one place.
namespace particlePanel {
    import el = ui.el;
    import Entry = model.Entry;
    import Vector = particleScene.Vector;

    /// Above it, only each n-th element is asked for.
    const MaxPoints = 100000;

    export function suits(entry: Entry): boolean {
        return entry.kind === "buffer" && /Vec[23]/.test(entry.type);
    }

    interface Extent {
        readonly least: number;
        readonly most: number;
    }
    function extentOf(values: Iterable<number>): Extent {
        let [least, most] = [Infinity, -Infinity];
        for (const value of values)
            if (Number.isFinite(value)) {
                least = Math.min(least, value);
                most = Math.max(most, value);
            }
        return { least, most };
    }

    /// One picture of one buffer.
    class View {
        readonly root: HTMLElement;
        readonly canvas: HTMLCanvasElement;
        path = "";
        private readonly legend: HTMLElement;
        private readonly caption = el("p", { class: "caption" });
        private readonly scaleBar = el("div", { class: "scale" });
        private readonly watch: model.Subscription;
        private scene: particleScene.Scene | null = null;
        private place: model.Item | null = null;
        private color: model.Item | null = null;
        /// Amounts of the colours, as they are.
        private amounts: Float64Array | null = null;
        private readonly pointers = new Map<number, { x: number; y: number }>();

        constructor(private readonly panel: Panel, session: model.Session, name: string) {
            this.canvas = el("canvas", {
                id: name + "-canvas", tabindex: "0", role: "img",
                "aria-label": "Particles. Arrow keys turn, with shift they move, plus and minus zoom, F fits all into the picture",
            });
            this.legend = el("p", { class: "legend", id: name + "-legend" });
            this.root = el("div", { class: "view" }, this.canvas, this.caption, this.legend, this.scaleBar);
            this.watch = session.subscribe((update) => this.take(update), (text) => panel.fail(text));
            this.openScene();
            this.listen();
            new ResizeObserver(() => panel.redraw()).observe(this.canvas);
        }

        /// @param options  null for nothing
        look(path: string, colors: string, options: { readonly stride: number; readonly interval: number } | null, caption: string): void {
            if (path !== this.path)
                this.place = null;
            this.path = path;
            this.color = null;
            ui.setText(this.caption, caption);
            this.watch.set(options === null || path === "" ? null : { paths: colors === "" ? [path] : [path, colors], ...options });
        }
        get columns(): [Float64Array, Float64Array, Float64Array] | null {
            const elements = this.place?.elements ?? null;
            return elements === null || elements.components < 2 ? null :
                [elements.column(0), elements.column(1), elements.components > 2 ? elements.column(2) : new Float64Array(elements.count)];
        }
        get isFlat(): boolean {
            return this.place?.elements?.components === 2;
        }

        private openScene(): void {
            const gl = this.canvas.getContext("webgl2");
            try {
                if (gl === null)
                    throw new Error("This browser has no WebGL 2.");
                this.scene = new particleScene.Scene(gl);
            } catch (error) {
                this.panel.fail((error as Error).message);
            }
            this.canvas.addEventListener("webglcontextlost", (event) => {
                event.preventDefault();
                this.scene = null;
                this.panel.fail("The graphics were lost.");
            });
            this.canvas.addEventListener("webglcontextrestored", () => {
                this.panel.fail("");
                this.scene = gl === null ? null : new particleScene.Scene(gl);
                this.panel.fit();
            });
        }
        private take({ items }: model.Update): void {
            for (const item of items) {
                const content = item.removed ? null : item;
                if (item.path === this.path)
                    this.place = content;
                else
                    this.color = content;
            }
            this.panel.uploadSoon();
        }

        /// The amount of each element's colour.
        get colorExtent(): Extent {
            const elements = this.color?.elements ?? null;
            this.amounts = null;
            if (elements === null || elements.components === 0)
                return { least: Infinity, most: -Infinity };
            this.amounts = new Float64Array(elements.count);
            for (let i = 0; i < elements.count; ++i) {
                let square = 0;
                for (let c = 0; c < elements.components; ++c)
                    square += elements.numberAt(i, c) ** 2;
                this.amounts[i] = elements.components === 1 ? elements.numberAt(i, 0) : Math.sqrt(square);
            }
            return extentOf(this.amounts);
        }
        /// @param extent  of the colours, that are between 0 and 1 then: as logarithms where they span more than three decades
        upload(origin: Vector, radius: number, { least, most }: Extent, colorName: string): void {
            const { scene, columns, amounts } = this;
            if (scene === null)
                return;
            if (columns === null) {
                scene.count = 0;
                const components = this.place?.elements?.components;
                ui.setText(this.legend, components === undefined ? "" : "This buffer has " + components + " numbers an element; two or three make a position.");
                return;
            }
            const isLogarithmic = least > 0 && most / least > 1000;
            const scaled = (value: number): number => isLogarithmic ? Math.log(value) : value;
            // What differs by rounding alone is one colour.
            const span = most - least > 1e-9 * Math.abs(most) ? scaled(most) - scaled(least) : Infinity;
            const count = columns[0].length;
            const places = new Float32Array(3 * count);
            const values = new Float32Array(count);
            let shown = 0;
            for (let i = 0; i < count; ++i) {
                if (!Number.isFinite(columns[0][i]! + columns[1][i]! + columns[2][i]!))
                    continue;
                for (let axis = 0; axis < 3; ++axis)
                    places[3 * shown + axis] = (columns[axis]![i]! - origin[axis]!) / radius;
                values[shown++] = amounts === null || i >= amounts.length ? -1 : (scaled(amounts[i]!) - scaled(least)) / span;
            }
            scene.set(places.subarray(0, 3 * shown), values.subarray(0, shown));
            const { stride, numElements } = this.place!;
            ui.setText(this.legend, shown + " of " + numElements + (stride > 1 ? ", one in " + stride : "") +
                (amounts === null ? "" : "; " + colorName + " " + ui.number(least, 4) + " to " + ui.number(most, 4) + (isLogarithmic ? " (logarithm)" : "")));
        }

        render(camera: particleScene.Camera, size: number, radius: number): void {
            const { canvas, scene } = this;
            if (scene === null || canvas.clientWidth === 0)
                return;
            const width = Math.round(canvas.clientWidth * devicePixelRatio);
            const height = Math.round(canvas.clientHeight * devicePixelRatio);
            if (canvas.width !== width || canvas.height !== height)
                [canvas.width, canvas.height] = [width, height];
            const accent = parseInt(ui.color("--accent").slice(1), 16);
            scene.draw(camera, size, [accent >> 16 & 255, accent >> 8 & 255, accent & 255].map((part) => part / 255) as Vector);
            // A length of 1, 2 or 5 times a power of ten.
            const unitsPerPixel = 2 * particleScene.Tangent * camera.distance * radius / this.side;
            const most = 120 * unitsPerPixel;
            const power = 10 ** Math.floor(Math.log10(most));
            const length = Number.isFinite(power) && power > 0 ? power * (most >= 5 * power ? 5 : most >= 2 * power ? 2 : 1) : 0;
            this.scaleBar.hidden = length === 0 || scene.count === 0;
            this.scaleBar.style.width = length / unitsPerPixel + "px";
            ui.setText(this.scaleBar, ui.number(length, 3));
        }

        private get side(): number {
            return Math.max(1, Math.min(this.canvas.clientWidth, this.canvas.clientHeight));
        }
        private listen(): void {
            const { canvas, pointers, panel } = this;
            canvas.addEventListener("pointerdown", (event) => {
                canvas.setPointerCapture(event.pointerId);
                pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
            });
            const drop = (event: PointerEvent): boolean => pointers.delete(event.pointerId);
            canvas.addEventListener("pointerup", drop);
            canvas.addEventListener("pointercancel", drop);
            canvas.addEventListener("pointermove", (event) => {
                const before = pointers.get(event.pointerId);
                if (before === undefined)
                    return;
                const [x, y] = [(event.clientX - before.x) / this.side, (event.clientY - before.y) / this.side];
                const other = [...pointers].find(([id]) => id !== event.pointerId)?.[1];
                if (other !== undefined)
                    panel.zoom(Math.hypot(before.x - other.x, before.y - other.y) / Math.max(1, Math.hypot(event.clientX - other.x, event.clientY - other.y)));
                else if (event.shiftKey || event.buttons === 2)
                    panel.pan(x, y);
                else
                    panel.turn(x, y);
                pointers.set(event.pointerId, { x: event.clientX, y: event.clientY });
            });
            canvas.addEventListener("contextmenu", (event) => event.preventDefault());
            canvas.addEventListener("wheel", (event) => {
                panel.zoom(Math.exp(Math.max(-1, Math.min(1, event.deltaY / 400))));
                event.preventDefault();
            }, { passive: false });
            canvas.addEventListener("keydown", (event) => {
                const step = 0.04;
                const arrows: { [key: string]: [number, number] } = {
                    ArrowLeft: [-step, 0], ArrowRight: [step, 0], ArrowUp: [0, -step], ArrowDown: [0, step],
                };
                const arrow = arrows[event.key];
                if (arrow !== undefined)
                    event.shiftKey ? panel.pan(...arrow) : panel.turn(...arrow);
                else if (event.key === "+" || event.key === "-")
                    panel.zoom(event.key === "+" ? 0.9 : 1 / 0.9);
                else if (event.key === "f" || event.key === "F")
                    panel.fit();
                else
                    return;
                event.preventDefault();
                event.stopPropagation();
            });
        }
    }

    export class Panel {
        private readonly positions = el("select", { id: "positions", "aria-label": "Buffer of positions" });
        private readonly colors = el("select", { id: "colors", "aria-label": "Buffer of colours" });
        private readonly size = el("input", { id: "point-size", type: "range", min: "1", max: "24", value: "6", "aria-label": "Size of points", title: "Size of points" });
        private readonly error = el("p", { class: "error", role: "alert" });
        private readonly hint = el("p", { class: "hint" }, "No buffer of positions yet: choose one with two or three numbers an element.");
        private readonly sideBySide = ui.button("Side by side", "The same of another recording beside it, seen from the same place", () => this.toggle());
        private readonly views: [View, ...View[]];
        private readonly place = el("div", { class: "views" });
        private readonly camera = new particleScene.Camera();
        private readonly known = new Map<string, Entry>();
        /// The same buffer of another recording, and the name of that; null without one.
        private other: { readonly path: string; readonly track: tracks.Track } | null = null;
        private question = 0;
        private origin: Vector = [0, 0, 0];
        private radius = 0;
        private isVisible = false;
        private readonly draw = (): void => this.render();

        constructor(root: HTMLElement, private readonly session: model.Session, private readonly all: tracks.Tracks) {
            this.views = [new View(this, session, "particles")];
            this.place.append(this.views[0].root);
            this.sideBySide.id = "side-by-side";
            this.sideBySide.setAttribute("aria-pressed", "false");
            this.sideBySide.hidden = true;
            root.append(el("header", {}, el("h2", {}, "Particles"), this.positions, el("label", {}, "by ", this.colors), this.size, this.sideBySide,
                ui.button("Fit", "All into the picture (F)", () => this.fit())), this.error, this.hint, this.place);
            this.positions.addEventListener("change", () => this.choose());
            this.colors.addEventListener("change", () => this.look());
            this.size.addEventListener("input", () => this.redraw());
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
                void this.findOther();
            });
            new IntersectionObserver(([entry]) => {
                this.isVisible = entry!.isIntersecting;
                this.look();
            }).observe(this.views[0].canvas);
        }

        redraw(): void {
            ui.drawSoon(this.draw);
        }
        fail(text: string): void {
            ui.setText(this.error, text);
        }

        // Which buffers.

        private async search(path: string): Promise<void> {
            try {
                await this.session.describe(path, 3, 0, 100); // the answer comes to `learn`
            } catch (error) {
                this.fail((error as Error).message);
            }
        }
        private learn(entry: Entry): void {
            const before = this.known.size;
            const visit = (each: Entry): void => {
                if (each.kind === "buffer")
                    this.known.set(each.path, each);
                each.children?.forEach(visit);
            };
            visit(entry);
            if (this.known.size !== before)
                this.offer();
        }
        /// The objects of a recording that was closed.
        private forget(path: string): void {
            for (const each of [...this.known.keys()])
                if (each.startsWith(path + "."))
                    this.known.delete(each);
            this.offer();
        }
        private offer(): void {
            const chosen = this.positions.value;
            // What is called a position comes first, and then the largest: likely what somebody wants to see.
            const rank = (each: Entry): number => (/pos/i.test(each.name) ? 1e12 : 0) + (each.numElements ?? 0);
            const suitable = [...this.known.values()].filter(suits).sort((a, b) => rank(b) - rank(a)).map(({ path }) => path);
            this.positions.replaceChildren(...suitable.map((path) => el("option", { value: path }, path)));
            this.positions.value = suitable.includes(chosen) ? chosen : suitable[0] ?? "";
            this.hint.hidden = suitable.length > 0;
            if (this.positions.value !== chosen)
                this.choose();
            else
                this.offerColors();
        }
        private choose(): void {
            this.positions.title = this.positions.value;
            this.radius = 0;
            this.other = null;
            this.offerColors();
            this.look();
            void this.findOther();
        }
        /// The buffers beside the positions.
        private offerColors(): void {
            const parent = (path: string): string => path.slice(0, path.lastIndexOf(".") + 1);
            const paths = [...this.known.keys()].filter((path) => parent(path) === parent(this.positions.value) && path !== this.positions.value).sort();
            const chosen = this.colors.value;
            this.colors.replaceChildren(el("option", { value: "" }, "one colour"),
                ...paths.map((path) => el("option", { value: path }, path.slice(path.lastIndexOf(".") + 1))));
            // Of another buffer, that of the same name.
            const name = chosen.slice(chosen.lastIndexOf(".") + 1);
            this.colors.value = paths.find((path) => path === chosen) ?? paths.find((path) => name !== "" && path.endsWith("." + name)) ?? "";
        }
        private async findOther(): Promise<void> {
            const question = ++this.question;
            const path = this.positions.value;
            const owner = this.all.ownerOf(path);
            let other: typeof this.other = null;
            for (const track of owner === null ? [] : this.all.open) {
                const moved = track.path + path.slice(owner!.path.length);
                if (track === owner || other !== null)
                    continue;
                const entry = await this.session.describe(moved, 0).catch(() => null);
                if (question !== this.question)
                    return;
                if (entry !== null && suits(entry))
                    other = { path: moved, track };
            }
            this.other = other;
            this.look();
        }
        private toggle(): void {
            this.sideBySide.setAttribute("aria-pressed", String(!this.wantsTwo));
            this.look();
        }
        private get wantsTwo(): boolean {
            return this.sideBySide.getAttribute("aria-pressed") === "true";
        }
        private look(): void {
            const { other } = this;
            const path = this.positions.value;
            this.sideBySide.hidden = other === null;
            const hasTwo = other !== null && this.wantsTwo;
            if (hasTwo && this.views.length === 1)
                this.views.push(new View(this, this.session, "other-particles"));
            const [first, second] = this.views;
            const count = this.known.get(path)?.numElements ?? 0;
            const options = this.isVisible ? { stride: Math.max(1, Math.ceil(count / MaxPoints)), interval: count > 20000 ? 66 : 16 } : null;
            const owner = this.all.ownerOf(path);
            first.look(path, this.colors.value, options, hasTwo && owner !== null ? owner.name : "");
            if (second === undefined)
                return;
            if (hasTwo) {
                const color = this.colors.value;
                second.look(other.path, color === "" || owner === null ? "" : other.track.path + color.slice(owner.path.length), options, other.track.name);
                this.place.append(second.root);
            } else {
                second.look("", "", null, "");
                second.root.remove();
            }
        }

        // The picture.

        private get shown(): View[] {
            return this.views.filter(({ root }) => root.isConnected);
        }
        uploadSoon(): void {
            ui.drawSoon(this.upload);
        }
        private readonly upload = (): void => {
            const { shown } = this;
            if (this.radius === 0)
                this.measure();
            const extents = shown.map((view) => view.colorExtent);
            const extent = { least: Math.min(...extents.map(({ least }) => least)), most: Math.max(...extents.map(({ most }) => most)) };
            for (const view of shown)
                view.upload(this.origin, this.radius || 1, extent, this.colors.selectedOptions[0]?.text ?? "");
            this.render();
        };
        /// The middle and the size of what is there, so that all of it is seen.
        private measure(): void {
            const { columns, isFlat } = this.views[0];
            if (columns === null)
                return;
            columns.forEach((column, axis) => {
                const { least, most } = extentOf(column);
                this.origin[axis] = least <= most ? least / 2 + most / 2 : 0;
            });
            const [x, y, z] = columns;
            for (let i = 0; i < x.length; ++i) {
                const distance = Math.hypot(x[i]! - this.origin[0], y[i]! - this.origin[1], z[i]! - this.origin[2]);
                if (Number.isFinite(distance))
                    this.radius = Math.max(this.radius, distance);
            }
            this.radius = this.radius || 1;
            const { camera } = this;
            camera.target.fill(0);
            camera.distance = 2.65;
            if (isFlat) {
                camera.yaw = -Math.PI / 2;
                camera.pitch = Math.PI / 2;
            }
        }
        private render(): void {
            for (const view of this.shown)
                view.render(this.camera, Number(this.size.value), this.radius || 1);
        }

        // What moves the view.

        fit(): void {
            this.radius = 0;
            this.uploadSoon();
        }
        turn(x: number, y: number): void {
            if (this.views[0].isFlat)
                this.camera.pan(x, y);
            else
                this.camera.turn(x, y);
            this.redraw();
        }
        zoom(factor: number): void {
            this.camera.zoom(factor);
            this.redraw();
        }
        pan(x: number, y: number): void {
            this.camera.pan(x, y);
            this.redraw();
        }
    }
}

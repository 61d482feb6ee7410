/// All about the selected object: what it is, its value to be set, its elements.
namespace detailsPanel {
    import el = ui.el;
    import Entry = model.Entry;

    const RowHeight = 22;
    const ValueInterval = 100;
    /// Between two looks at what changes with the frame of a recording, beside values and elements.
    const FactsInterval = 250;

    export class Panel {
        private readonly title = el("h2", {}, "Details");
        private readonly body = el("div", { class: "body" });
        private readonly error = el("p", { class: "error", role: "alert", id: "details-error" });
        private entry: Entry | null = null;
        private question = 0;
        private table: Table | null = null;
        private readonly watch: model.Subscription;
        private readonly value = el("output", { id: "value" });
        private facts = el("dl", { class: "facts" });
        /// The frame that the facts are of.
        private frame = "";
        private later = 0;

        constructor(root: HTMLElement, private readonly session: model.Session, private readonly all: tracks.Tracks) {
            root.append(el("header", {}, this.title), this.error, this.body);
            this.body.append(el("p", { class: "hint" }, "Choose an object in the tree."));
            this.watch = session.subscribe(({ items }) => {
                for (const item of items)
                    ui.setText(this.value, item.removed ? "(gone)" : item.value === null ? "" : String(item.value));
            }, (text) => this.fail(text));
            session.selected.add((path) => void this.show(path));
            session.stateChanged.add(() => {
                if (session.isConnected && this.entry !== null)
                    void this.show(this.entry.path);
            });
            all.opened.add((track) => {
                if (this.entry !== null && (this.entry.path + ".").startsWith(track.path + "."))
                    void this.show(this.entry.path);
            });
            all.changed.add(() => this.follow());
        }

        /// Shows the facts of the frame at which a recording has come to stand.
        private follow(): void {
            if (this.entry === null || this.later !== 0 || this.frame === this.frameOf(this.entry.path))
                return;
            this.later = window.setTimeout(() => {
                this.later = 0;
                if (this.entry !== null)
                    void this.refresh(this.entry.path);
            }, FactsInterval);
        }
        private frameOf(path: string): string {
            const owner = this.all.ownerOf(path);
            return owner === null ? "" : owner.id + " " + (owner.position?.index ?? "");
        }
        private async refresh(path: string): Promise<void> {
            const { question } = this;
            const frame = this.frameOf(path);
            // Also one that was chosen already and is yet to be shown.
            const isOther = (): boolean => question !== this.question || this.entry?.path !== path;
            try {
                const entry = await this.session.describe(path, 0);
                if (isOther())
                    return;
                this.frame = frame;
                this.fail("");
                const facts = this.factsOf(entry);
                this.facts.replaceWith(facts);
                this.facts = facts;
                this.follow();
            } catch (error) {
                if (isOther())
                    return;
                this.frame = frame;
                this.fail((error as Error).message);
            }
        }

        private fail(text: string): void {
            ui.setText(this.error, text);
        }

        private async show(path: string): Promise<void> {
            const question = ++this.question;
            const frame = this.frameOf(path);
            try {
                const entry = await this.session.describe(path, 0);
                if (question !== this.question)
                    return;
                this.fail("");
                this.entry = entry;
                this.frame = frame;
                this.render(entry);
            } catch (error) {
                if (question === this.question)
                    this.fail((error as Error).message);
            }
        }

        private render(entry: Entry): void {
            this.table?.close();
            this.table = null;
            ui.setText(this.title, entry.name || entry.path || "(root)");
            const facts = this.facts = this.factsOf(entry);
            this.body.replaceChildren(facts);
            const hasValue = entry.value !== null;
            this.watch.set(hasValue ? { paths: [entry.path], interval: ValueInterval } : null);
            if (hasValue)
                this.body.append(...this.valueControls(entry));
            if (entry.kind === "buffer") {
                const table = this.table = new Table(this.session, entry, (text) => this.fail(text));
                if (particlePanel.suits(entry))
                    facts.after(el("div", { class: "actions" },
                        ui.button("Show as particles", "Positions of the particle view", () => this.session.particlesAsked.fire(entry))));
                this.body.append(table.root, ...this.comparison(entry.path));
            }
        }
        private factsOf(entry: Entry): HTMLDListElement {
            const facts = el("dl", { class: "facts" });
            const fact = (name: string, value: string | null): void => {
                if (value !== null && value !== "")
                    facts.append(el("dt", {}, name), el("dd", {}, value));
            };
            const link = (name: string, path: string): void => {
                const follow = ui.button(path, "Show this object", () => this.session.select(path));
                follow.classList.add("link");
                facts.append(el("dt", {}, name), el("dd", {}, follow));
            };
            fact("path", entry.path);
            fact("kind", entry.kind);
            fact("type", entry.type);
            fact("class", entry.implementation);
            fact("model", entry.model);
            fact("entity", entry.entity);
            fact("enabled", entry.enabled === null ? null : String(entry.enabled));
            fact("elements", entry.numElements === null ? null : String(entry.numElements));
            fact("capacity", entry.capacity === null ? null : String(entry.capacity));
            fact("children", entry.numChildren === 0 ? null : String(entry.numChildren));
            if (entry.binding !== "")
                link("bound to", entry.binding);
            if (entry.target !== null)
                entry.target === "" ? fact("target", "none") : link("target", entry.target);
            return facts;
        }
        /// Where there are more recordings, what is plotted of one is plotted of all.
        private comparison(path: string): HTMLElement[] {
            if (this.all.ownerOf(path) === null || this.all.open.length < 2)
                return [];
            const box = el("input", { id: "compares-all", type: "checkbox" });
            box.checked = this.all.comparesAll;
            box.addEventListener("change", () => this.all.comparesAll = box.checked);
            return [el("label", { class: "check" }, box, "plot in all recordings")];
        }

        private valueControls(entry: Entry): HTMLElement[] {
            ui.setText(this.value, String(entry.value));
            const input = el("input", { id: "new-value", type: "text", value: String(entry.value), "aria-label": "New value", autocomplete: "off", spellcheck: "false", title: "As in a model file" });
            const submit = el("button", { id: "set-value", title: "Set the value" }, "Set");
            const form = el("form", { class: "set" }, input, submit);
            for (const control of [input, submit])
                ui.enable(control, this.session.whyReadOnly);
            form.addEventListener("submit", (event) => {
                event.preventDefault();
                this.session.setValue(entry.path, input.value).then((value) => {
                    this.fail("");
                    if (this.entry === entry && value !== null) {
                        ui.setText(this.value, String(value));
                        input.value = String(value);
                    }
                }, (error: Error) => this.fail(error.message));
            });
            const quantities = model.quantitiesOf(entry.path, entry.value);
            const elements: HTMLElement[] = [el("div", { class: "current" }, this.value)];
            if (quantities.length > 0)
                elements[0]!.append(ui.button("Plot", "Plot this value", () => this.session.plotAsked.fire(quantities)));
            const recording = this.all.ownerOf(entry.path);
            if (recording !== null) {
                elements.push(...quantities.length > 0 ? this.comparison(entry.path) : [], el("p", { class: "hint" }, "Recorded: it stays as it is."));
                return elements;
            }
            elements.push(form);
            if (this.session.whyReadOnly !== "")
                elements.push(el("p", { class: "hint" }, this.session.whyReadOnly));
            return elements;
        }
    }

    /// The elements of a buffer, live, of which only those in sight are asked for.
    class Table {
        readonly root: HTMLElement;
        private readonly viewport = el("div", { class: "elements", id: "elements", role: "grid", tabindex: "0", "aria-label": "Elements" });
        private readonly head = el("div", { class: "cells head", role: "row" });
        private readonly list: ui.VirtualList;
        private readonly watch: model.Subscription;
        private item: model.Item | null = null;
        private components = -1;
        private row = 0;
        private column = 0;
        private later = 0;

        constructor(private readonly session: model.Session, private readonly entry: Entry, private readonly fail: (text: string) => void) {
            this.root = el("div", { class: "table" }, this.head, this.viewport,
                el("p", { class: "hint" }, "Arrow keys choose a number, Enter or a double click plots it."));
            this.watch = session.subscribe(({ items }) => {
                this.item = items[items.length - 1] ?? null;
                if (this.item !== null)
                    this.take(this.item);
            }, fail);
            this.list = new ui.VirtualList(this.viewport, RowHeight, () => this.create(), (row, index) => this.fill(row, index), () => this.look());
            this.list.setCount(entry.numElements ?? 0);
            this.viewport.addEventListener("keydown", (event) => this.keyDown(event));
            this.look();
        }

        close(): void {
            clearTimeout(this.later);
            this.watch.close();
        }

        /// Watches what is in sight, but not each row that is scrolled past.
        private look(): void {
            clearTimeout(this.later);
            this.later = window.setTimeout(() => this.watch.set({
                paths: [this.entry.path], begin: Math.max(0, this.list.first - 2), count: this.list.visibleCount + 6, interval: ValueInterval,
            }), this.item === null ? 0 : 60);
        }

        private take(item: model.Item): void {
            if (item.removed) {
                this.fail("The buffer is gone.");
                this.list.setCount(0);
                return;
            }
            const components = item.elements?.components ?? 0;
            if (components !== this.components) {
                this.components = components;
                const names = components === 0 ? ["element"] : Array.from({ length: components }, (_, i) => model.componentName(i, components));
                this.head.replaceChildren(el("span", { role: "columnheader" }, "#"), ...names.map((name) => el("span", { role: "columnheader" }, name)));
            }
            this.list.setCount(item.numElements);
        }

        private create(): HTMLElement {
            const row = el("div", { class: "cells", role: "row" });
            row.addEventListener("click", (event) => this.choose(row, event.target as HTMLElement));
            row.addEventListener("dblclick", (event) => {
                this.choose(row, event.target as HTMLElement);
                this.plot();
            });
            return row;
        }
        private choose(row: HTMLElement, cell: HTMLElement): void {
            this.row = Number(row.dataset.index);
            this.column = Math.max(0, [...row.children].indexOf(cell) - 1);
            ui.drawSoon(this.list.draw);
        }
        private fill(row: HTMLElement, index: number): void {
            const columns = Math.max(1, this.components);
            row.dataset.index = String(index);
            row.setAttribute("aria-rowindex", String(index + 1));
            while (row.childElementCount > columns + 1)
                row.lastElementChild!.remove();
            while (row.childElementCount < columns + 1)
                row.append(el("span", { role: "gridcell" }));
            ui.setText(row.children[0]!, String(index));
            const elements = this.item?.elements ?? null;
            const at = index - (this.item?.begin ?? 0);
            for (let column = 0; column < columns; ++column) {
                const cell = row.children[column + 1]!;
                const isKnown = elements !== null && at >= 0 && at < elements.count;
                const content = !isKnown ? "…" : elements.components === 0 ? elements.textAt(at) : elements.at(at, column);
                ui.setText(cell, typeof content === "number" ? ui.number(content, 5) : String(content));
                (cell as HTMLElement).title = String(content);
                cell.setAttribute("aria-selected", String(index === this.row && column === this.column));
            }
        }

        private plot(): void {
            if (this.components <= 0)
                return;
            const name = this.components === 1 ? "" : "." + model.componentName(this.column, this.components);
            this.session.plotAsked.fire([{
                path: this.entry.path, index: this.row, component: this.column, label: this.entry.path + "[" + this.row + "]" + name,
            }]);
        }
        private keyDown(event: KeyboardEvent): void {
            const last = (this.item?.numElements ?? 1) - 1;
            const moves: { [key: string]: [number, number] } = {
                ArrowDown: [1, 0], ArrowUp: [-1, 0], ArrowRight: [0, 1], ArrowLeft: [0, -1], Home: [-last, 0], End: [last, 0],
                PageDown: [this.list.visibleCount - 1, 0], PageUp: [1 - this.list.visibleCount, 0],
            };
            const move = moves[event.key];
            if (move !== undefined) {
                this.row = Math.max(0, Math.min(this.row + move[0], last));
                this.column = Math.max(0, Math.min(this.column + move[1], this.components - 1));
                this.list.scrollTo(this.row);
                ui.drawSoon(this.list.draw);
            } else if (event.key === "Enter") {
                this.plot();
            } else {
                return;
            }
            event.preventDefault();
            event.stopPropagation();
        }
    }
}

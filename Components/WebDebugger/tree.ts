/// The tree of objects, and the field that leads to a path.
namespace treePanel {
    import el = ui.el;
    import Entry = model.Entry;

    const RowHeight = 24;
    /// Entries that are asked for at once.
    const Page = 200;
    const ValueInterval = 250;

    interface Node {
        entry: Entry;
        readonly parent: Node | null;
        readonly level: number;
        /// Null where they have never been asked for; holes where they are not known yet.
        children: (Node | undefined)[] | null;
        isOpen: boolean;
        error: string;
        readonly asked: Set<number>;
    }

    /// A node, or the place of one that is not known yet.
    interface Row {
        readonly node: Node | null;
        readonly parent: Node | null;
        readonly index: number;
    }

    const signs: { [kind: string]: string } = {
        value: "v", buffer: "b", storage: "s", clock: "c", task: "t", parameter: "p", pointer: "→", component: "", object: "o",
    };

    export class Panel {
        private readonly input = el("input", {
            id: "search", type: "text", role: "combobox", "aria-expanded": "false", "aria-controls": "completions", "aria-autocomplete": "list",
            autocomplete: "off", spellcheck: "false",
        });
        private readonly completions = el("ul", { id: "completions", role: "listbox", "aria-label": "Completions", hidden: "" });
        private readonly error = el("p", { class: "error", role: "alert" });
        private readonly viewport = el("div", { id: "tree", class: "tree", role: "tree", "aria-label": "Objects" });
        private readonly list: ui.VirtualList;
        private root: Node | null = null;
        private rows: Row[] = [];
        private active = 0;
        private chosen = -1;
        private question = 0;
        private completed = ""; // the text that the completions are for
        private typed = "";
        private typedAt = 0;
        private readonly values = new Map<string, string>();
        private readonly watch: model.Subscription;

        constructor(panel: HTMLElement, private readonly session: model.Session, all: tracks.Tracks) {
            panel.append(el("header", {}, el("h2", {}, "Objects"),
                ui.button("Refresh", "Ask for the objects again", () => this.reload())),
                el("div", { class: "search" }, el("label", { for: "search" }, "Path"), this.input, this.completions), this.error, this.viewport);
            this.list = new ui.VirtualList(this.viewport, RowHeight, () => this.createRow(), (row, index) => this.fillRow(row, index),
                () => this.watchVisible());
            this.watch = session.subscribe(({ items }) => {
                for (const item of items)
                    this.values.set(item.path, item.value === null ? "" : String(item.value));
                ui.drawSoon(this.list.draw);
            }, (text) => ui.setText(this.error, text));
            this.viewport.addEventListener("keydown", (event) => this.keyDown(event));
            this.input.addEventListener("input", () => this.complete());
            this.input.addEventListener("keydown", (event) => this.searchKey(event));
            this.input.addEventListener("blur", () => this.closeCompletions());
            all.opened.add(() => void this.reload());
            let wasConnected = false;
            session.stateChanged.add(() => {
                if (session.isConnected && !wasConnected)
                    this.reload();
                wasConnected = session.isConnected;
            });
        }

        // Nodes.

        private node(entry: Entry, parent: Node | null): Node {
            const node: Node = {
                entry, parent, level: parent === null ? 1 : parent.level + 1, children: null, isOpen: false, error: "", asked: new Set(),
            };
            if (entry.children !== null)
                this.takeChildren(node, entry.children, 0);
            return node;
        }
        private takeChildren(node: Node, children: readonly Entry[], begin: number): void {
            node.children = node.children ?? [];
            node.children.length = Math.max(node.entry.numChildren, begin + children.length);
            children.forEach((child, i) => node.children![begin + i] = this.node(child, node));
        }

        private async load(node: Node, begin: number): Promise<void> {
            const page = Math.floor(begin / Page);
            if (node.asked.has(page))
                return;
            node.asked.add(page);
            try {
                const entry = await this.session.describe(node.entry.path, 1, page * Page, Page);
                node.entry = entry;
                node.error = "";
                this.takeChildren(node, entry.children ?? [], page * Page);
            } catch (error) {
                node.asked.delete(page);
                node.error = (error as Error).message;
            }
            this.rebuild();
        }

        /// All again, with the same folders open.
        private async reload(): Promise<void> {
            const open: string[] = [];
            const visit = (node: Node | undefined): void => {
                if (node === undefined || !node.isOpen)
                    return;
                open.push(node.entry.path);
                node.children?.forEach(visit);
            };
            if (this.root !== null)
                visit(this.root);
            try {
                const root = this.node(await this.session.describe("", 0), null);
                root.isOpen = true;
                await this.load(root, 0);
                this.root = root;
                ui.setText(this.error, root.error);
            } catch (error) {
                ui.setText(this.error, (error as Error).message);
                return;
            }
            this.rebuild();
            for (const path of open) {
                const row = this.rows.find(({ node }) => node !== null && node.entry.path === path);
                if (row?.node && !row.node.isOpen)
                    await this.open(row.node);
            }
        }

        private rebuild(): void {
            const before = this.rows[this.active];
            this.rows = [];
            const add = (node: Node, index: number): void => {
                this.rows.push({ node, parent: node.parent, index });
                if (node.isOpen && node.children !== null)
                    for (let i = 0; i < node.children.length; ++i) {
                        const child = node.children[i];
                        if (child === undefined)
                            this.rows.push({ node: null, parent: node, index: i });
                        else
                            add(child, i);
                    }
            };
            if (this.root !== null)
                add(this.root, 0);
            const path = before?.node?.entry.path;
            const same = path === undefined ? -1 : this.rows.findIndex(({ node }) => node?.entry.path === path);
            this.activate(same >= 0 ? same : Math.max(0, Math.min(this.active, this.rows.length - 1)), false);
            this.list.setCount(this.rows.length);
            this.watchVisible();
        }

        private async open(node: Node): Promise<void> {
            if (node.entry.numChildren === 0)
                return;
            node.isOpen = true;
            if (node.children === null)
                await this.load(node, 0);
            else
                this.rebuild();
        }
        private close(node: Node): void {
            node.isOpen = false;
            this.rebuild();
        }

        // Rows.

        private createRow(): HTMLElement {
            const row = el("div", { class: "row", role: "treeitem" }, el("span", { class: "twisty", "aria-hidden": "true" }),
                el("span", { class: "kind", "aria-hidden": "true" }), el("span", { class: "name" }), el("span", { class: "value" }));
            row.addEventListener("click", (event) => {
                const index = Number(row.dataset.index);
                const node = this.rows[index]?.node;
                this.activate(index, true);
                if (!node)
                    return;
                if ((event.target as HTMLElement).className === "twisty")
                    this.toggle(node);
                else
                    this.session.select(node.entry.path);
            });
            row.addEventListener("dblclick", () => {
                const node = this.rows[Number(row.dataset.index)]?.node;
                if (node)
                    this.toggle(node);
            });
            return row;
        }
        private toggle(node: Node): void {
            if (node.isOpen)
                this.close(node);
            else
                void this.open(node);
        }

        private fillRow(row: HTMLElement, index: number): void {
            const { node, parent, index: place } = this.rows[index]!;
            const [twisty, kind, name, value] = [...row.children] as [HTMLElement, HTMLElement, HTMLElement, HTMLElement];
            const set = (attribute: string, text: string): void => {
                if (row.getAttribute(attribute) !== text)
                    row.setAttribute(attribute, text);
            };
            row.dataset.index = String(index);
            set("tabindex", index === this.active ? "0" : "-1");
            set("aria-level", String((parent?.level ?? 0) + 1));
            set("aria-posinset", String(place + 1));
            set("aria-setsize", String(parent?.children?.length ?? 1));
            row.style.paddingInlineStart = 4 + 14 * (parent?.level ?? 0) + "px";
            if (node === null) {
                if (!parent!.asked.has(Math.floor(place / Page)))
                    void this.load(parent!, place);
                row.removeAttribute("aria-expanded");
                ui.setText(name, "…");
                for (const span of [twisty, kind, value])
                    ui.setText(span, "");
                return;
            }
            const { entry } = node;
            if (entry.numChildren > 0)
                set("aria-expanded", String(node.isOpen));
            else
                row.removeAttribute("aria-expanded");
            set("aria-selected", String(entry.path === this.session.selection && this.session.selection !== ""));
            row.dataset.kind = entry.kind;
            ui.setText(twisty, entry.numChildren === 0 ? "" : node.isOpen ? "▾" : "▸");
            ui.setText(kind, signs[entry.kind] ?? "");
            kind.title = entry.kind;
            ui.setText(name, entry.name || (node.parent === null ? "(root)" : entry.path.slice(entry.path.lastIndexOf(".") + 1)));
            const isFault = node.error !== "";
            value.classList.toggle("error", isFault);
            ui.setText(value, isFault ? node.error : this.valueText(entry));
        }

        private valueText(entry: Entry): string {
            const live = this.values.get(entry.path) ?? entry.value;
            if (live !== null)
                return String(live);
            if (entry.numElements !== null)
                return entry.numElements + (entry.numElements === 1 ? " element" : " elements");
            return entry.enabled === false ? "off" : entry.target ?? (entry.numChildren > 0 ? String(entry.numChildren) : "");
        }

        private watchVisible(): void {
            const first = this.list.first;
            const paths = this.rows.slice(first, first + this.list.visibleCount + 1).map(({ node }) => node?.entry)
                .filter((entry): entry is Entry => entry !== undefined && entry.value !== null).map(({ path }) => path);
            this.watch.set(paths.length === 0 ? null : { paths, interval: ValueInterval });
        }

        // Keys.

        private activate(index: number, focuses: boolean): void {
            this.active = index;
            this.list.pinned = index;
            if (focuses) {
                this.list.scrollTo(index);
                this.list.row(index)?.focus({ preventScroll: true });
            }
        }

        private keyDown(event: KeyboardEvent): void {
            if (event.ctrlKey || event.altKey || event.metaKey)
                return;
            const row = this.rows[this.active];
            const node = row?.node;
            const last = this.rows.length - 1;
            const move = (index: number): void => this.activate(Math.max(0, Math.min(index, last)), true);
            const keys: { [key: string]: () => void } = {
                ArrowDown: () => move(this.active + 1),
                ArrowUp: () => move(this.active - 1),
                PageDown: () => move(this.active + this.list.visibleCount - 1),
                PageUp: () => move(this.active - this.list.visibleCount + 1),
                Home: () => move(0),
                End: () => move(last),
                ArrowRight: () => {
                    if (node?.isOpen)
                        move(this.active + 1);
                    else if (node)
                        void this.open(node);
                },
                ArrowLeft: () => {
                    if (node?.isOpen)
                        this.close(node);
                    else if (row?.parent)
                        move(this.rows.findIndex((each) => each.node === row.parent));
                },
                Enter: () => node && this.session.select(node.entry.path),
                " ": () => node && this.session.select(node.entry.path),
            };
            const act = keys[event.key];
            if (act !== undefined)
                act();
            else if (event.key.length === 1)
                this.typeAhead(event.key);
            else
                return;
            event.preventDefault();
            event.stopPropagation();
        }
        private typeAhead(key: string): void {
            this.typed = performance.now() - this.typedAt < 1000 ? this.typed + key.toLowerCase() : key.toLowerCase();
            this.typedAt = performance.now();
            const begin = this.typed.length > 1 ? this.active : this.active + 1;
            for (let i = 0; i < this.rows.length; ++i) {
                const index = (begin + i) % this.rows.length;
                if (this.rows[index]!.node?.entry.name.toLowerCase().startsWith(this.typed)) {
                    this.activate(index, true);
                    return;
                }
            }
        }

        // Paths.

        /// Opens all folders on the way and selects the object.
        async goTo(path: string): Promise<void> {
            try {
                const wanted = await this.session.describe(path, 0);
                ui.setText(this.error, "");
                this.session.select(wanted.path);
                let node = this.root;
                while (node !== null && node.entry.path !== wanted.path)
                    node = await this.childOnTheWay(node, wanted.path);
                if (node !== null)
                    this.activate(this.rows.findIndex((row) => row.node === node), true);
            } catch (error) {
                ui.setText(this.error, (error as Error).message);
            }
        }
        private async childOnTheWay(node: Node, path: string): Promise<Node | null> {
            await this.open(node);
            const leads = (child: Node | undefined): boolean =>
                child !== undefined && (child.entry.path === path || path.startsWith(child.entry.path + "."));
            for (let begin = 0; begin < (node.children?.length ?? 0); begin += Page) {
                if (node.children![begin] === undefined)
                    await this.load(node, begin);
                const found = node.children!.slice(begin, begin + Page).find(leads);
                if (found !== undefined)
                    return found;
            }
            return null;
        }

        private async complete(): Promise<void> {
            const text = this.input.value;
            const question = ++this.question;
            try {
                const paths = await this.session.complete(text);
                if (question !== this.question)
                    return;
                this.completed = text;
                const chosen = this.completions.children[this.chosen]?.textContent;
                this.chosen = -1;
                this.completions.replaceChildren(...paths.map((path, i) => {
                    const option = el("li", { role: "option", id: "completion-" + i, "aria-selected": "false" }, path);
                    // Ahead of the field's loss of focus.
                    option.addEventListener("pointerdown", (event) => {
                        event.preventDefault();
                        this.accept(path);
                    });
                    return option;
                }));
                this.choose(paths.findIndex((path) => path === chosen));
                this.showCompletions(paths.length > 0);
                ui.setText(this.error, paths.length === 0 && text !== "" ? "Nothing begins like this." : "");
            } catch (error) {
                ui.setText(this.error, (error as Error).message);
            }
        }
        /** One step along the path, as in a shell. */
        private async stepAlong(): Promise<void> {
            if (this.completed !== this.input.value)
                await this.complete(); // what is shown is for an earlier text
            const options = [...this.completions.children];
            if (this.completed !== this.input.value || options.length === 0)
                return;
            this.input.value = (options[Math.max(0, this.chosen)]!.textContent ?? "") + (options.length === 1 ? "." : "");
            await this.complete();
        }
        private showCompletions(shows: boolean): void {
            this.completions.hidden = !shows;
            this.input.setAttribute("aria-expanded", String(shows));
        }
        private closeCompletions(): void {
            ++this.question;
            this.choose(-1);
            this.showCompletions(false);
        }
        private accept(path: string): void {
            this.input.value = path;
            this.closeCompletions();
            void this.goTo(path);
        }
        /** @param index  -1 for none of them */
        private choose(index: number): void {
            const options = this.completions.children;
            options[this.chosen]?.setAttribute("aria-selected", "false");
            this.chosen = index;
            const option = options[index];
            option?.setAttribute("aria-selected", "true");
            option?.scrollIntoView({ block: "nearest" });
            this.input.setAttribute("aria-activedescendant", option?.id ?? "");
        }
        private searchKey(event: KeyboardEvent): void {
            const options = [...this.completions.children];
            if (event.key === "ArrowDown" || event.key === "ArrowUp") {
                if (this.completions.hidden)
                    void this.complete();
                else
                    this.choose((this.chosen + (event.key === "ArrowDown" ? 1 : this.chosen < 0 ? 0 : -1) + options.length) % options.length);
            } else if (event.key === "Tab" && !event.shiftKey && !this.completions.hidden && options.length > 0) {
                void this.stepAlong();
            } else if (event.key === "Enter") {
                this.accept(this.chosen >= 0 && !this.completions.hidden ? options[this.chosen]!.textContent ?? "" : this.input.value);
            } else if (event.key === "Escape") {
                this.closeCompletions();
            } else {
                return;
            }
            event.preventDefault();
            event.stopPropagation();
        }
    }
}

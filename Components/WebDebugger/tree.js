"use strict";
/// The tree of objects, and the field that leads to a path.
var treePanel;
(function (treePanel) {
    var el = ui.el;
    const RowHeight = 24;
    /// Entries that are asked for at once.
    const Page = 200;
    const ValueInterval = 250;
    const signs = {
        value: "v", buffer: "b", storage: "s", clock: "c", task: "t", parameter: "p", pointer: "→", component: "", object: "o",
    };
    class Panel {
        constructor(panel, session, all) {
            this.session = session;
            this.input = el("input", {
                id: "search", type: "text", role: "combobox", "aria-expanded": "false", "aria-controls": "completions", "aria-autocomplete": "list",
                autocomplete: "off", spellcheck: "false",
            });
            this.completions = el("ul", { id: "completions", role: "listbox", "aria-label": "Completions", hidden: "" });
            this.error = el("p", { class: "error", role: "alert" });
            this.viewport = el("div", { id: "tree", class: "tree", role: "tree", "aria-label": "Objects" });
            this.root = null;
            this.rows = [];
            this.active = 0;
            this.chosen = -1;
            this.question = 0;
            this.completed = ""; // the text that the completions are for
            this.typed = "";
            this.typedAt = 0;
            this.values = new Map();
            panel.append(el("header", {}, el("h2", {}, "Objects"), ui.button("Refresh", "Ask for the objects again", () => this.reload())), el("div", { class: "search" }, el("label", { for: "search" }, "Path"), this.input, this.completions), this.error, this.viewport);
            this.list = new ui.VirtualList(this.viewport, RowHeight, () => this.createRow(), (row, index) => this.fillRow(row, index), () => this.watchVisible());
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
        node(entry, parent) {
            const node = {
                entry, parent, level: parent === null ? 1 : parent.level + 1, children: null, isOpen: false, error: "", asked: new Set(),
            };
            if (entry.children !== null)
                this.takeChildren(node, entry.children, 0);
            return node;
        }
        takeChildren(node, children, begin) {
            node.children = node.children ?? [];
            node.children.length = Math.max(node.entry.numChildren, begin + children.length);
            children.forEach((child, i) => node.children[begin + i] = this.node(child, node));
        }
        async load(node, begin) {
            const page = Math.floor(begin / Page);
            if (node.asked.has(page))
                return;
            node.asked.add(page);
            try {
                const entry = await this.session.describe(node.entry.path, 1, page * Page, Page);
                node.entry = entry;
                node.error = "";
                this.takeChildren(node, entry.children ?? [], page * Page);
            }
            catch (error) {
                node.asked.delete(page);
                node.error = error.message;
            }
            this.rebuild();
        }
        /// All again, with the same folders open.
        async reload() {
            const open = [];
            const visit = (node) => {
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
            }
            catch (error) {
                ui.setText(this.error, error.message);
                return;
            }
            this.rebuild();
            for (const path of open) {
                const row = this.rows.find(({ node }) => node !== null && node.entry.path === path);
                if (row?.node && !row.node.isOpen)
                    await this.open(row.node);
            }
        }
        rebuild() {
            const before = this.rows[this.active];
            this.rows = [];
            const add = (node, index) => {
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
        async open(node) {
            if (node.entry.numChildren === 0)
                return;
            node.isOpen = true;
            if (node.children === null)
                await this.load(node, 0);
            else
                this.rebuild();
        }
        close(node) {
            node.isOpen = false;
            this.rebuild();
        }
        // Rows.
        createRow() {
            const row = el("div", { class: "row", role: "treeitem" }, el("span", { class: "twisty", "aria-hidden": "true" }), el("span", { class: "kind", "aria-hidden": "true" }), el("span", { class: "name" }), el("span", { class: "value" }));
            row.addEventListener("click", (event) => {
                const index = Number(row.dataset.index);
                const node = this.rows[index]?.node;
                this.activate(index, true);
                if (!node)
                    return;
                if (event.target.className === "twisty")
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
        toggle(node) {
            if (node.isOpen)
                this.close(node);
            else
                void this.open(node);
        }
        fillRow(row, index) {
            const { node, parent, index: place } = this.rows[index];
            const [twisty, kind, name, value] = [...row.children];
            const set = (attribute, text) => {
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
                if (!parent.asked.has(Math.floor(place / Page)))
                    void this.load(parent, place);
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
        valueText(entry) {
            const live = this.values.get(entry.path) ?? entry.value;
            if (live !== null)
                return String(live);
            if (entry.numElements !== null)
                return entry.numElements + (entry.numElements === 1 ? " element" : " elements");
            return entry.enabled === false ? "off" : entry.target ?? (entry.numChildren > 0 ? String(entry.numChildren) : "");
        }
        watchVisible() {
            const first = this.list.first;
            const paths = this.rows.slice(first, first + this.list.visibleCount + 1).map(({ node }) => node?.entry)
                .filter((entry) => entry !== undefined && entry.value !== null).map(({ path }) => path);
            this.watch.set(paths.length === 0 ? null : { paths, interval: ValueInterval });
        }
        // Keys.
        activate(index, focuses) {
            this.active = index;
            this.list.pinned = index;
            if (focuses) {
                this.list.scrollTo(index);
                this.list.row(index)?.focus({ preventScroll: true });
            }
        }
        keyDown(event) {
            if (event.ctrlKey || event.altKey || event.metaKey)
                return;
            const row = this.rows[this.active];
            const node = row?.node;
            const last = this.rows.length - 1;
            const move = (index) => this.activate(Math.max(0, Math.min(index, last)), true);
            const keys = {
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
        typeAhead(key) {
            this.typed = performance.now() - this.typedAt < 1000 ? this.typed + key.toLowerCase() : key.toLowerCase();
            this.typedAt = performance.now();
            const begin = this.typed.length > 1 ? this.active : this.active + 1;
            for (let i = 0; i < this.rows.length; ++i) {
                const index = (begin + i) % this.rows.length;
                if (this.rows[index].node?.entry.name.toLowerCase().startsWith(this.typed)) {
                    this.activate(index, true);
                    return;
                }
            }
        }
        // Paths.
        /// Opens all folders on the way and selects the object.
        async goTo(path) {
            try {
                const wanted = await this.session.describe(path, 0);
                ui.setText(this.error, "");
                this.session.select(wanted.path);
                let node = this.root;
                while (node !== null && node.entry.path !== wanted.path)
                    node = await this.childOnTheWay(node, wanted.path);
                if (node !== null)
                    this.activate(this.rows.findIndex((row) => row.node === node), true);
            }
            catch (error) {
                ui.setText(this.error, error.message);
            }
        }
        async childOnTheWay(node, path) {
            await this.open(node);
            const leads = (child) => child !== undefined && (child.entry.path === path || path.startsWith(child.entry.path + "."));
            for (let begin = 0; begin < (node.children?.length ?? 0); begin += Page) {
                if (node.children[begin] === undefined)
                    await this.load(node, begin);
                const found = node.children.slice(begin, begin + Page).find(leads);
                if (found !== undefined)
                    return found;
            }
            return null;
        }
        async complete() {
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
            }
            catch (error) {
                ui.setText(this.error, error.message);
            }
        }
        /** One step along the path, as in a shell. */
        async stepAlong() {
            if (this.completed !== this.input.value)
                await this.complete(); // what is shown is for an earlier text
            const options = [...this.completions.children];
            if (this.completed !== this.input.value || options.length === 0)
                return;
            this.input.value = (options[Math.max(0, this.chosen)].textContent ?? "") + (options.length === 1 ? "." : "");
            await this.complete();
        }
        showCompletions(shows) {
            this.completions.hidden = !shows;
            this.input.setAttribute("aria-expanded", String(shows));
        }
        closeCompletions() {
            ++this.question;
            this.choose(-1);
            this.showCompletions(false);
        }
        accept(path) {
            this.input.value = path;
            this.closeCompletions();
            void this.goTo(path);
        }
        /** @param index  -1 for none of them */
        choose(index) {
            const options = this.completions.children;
            options[this.chosen]?.setAttribute("aria-selected", "false");
            this.chosen = index;
            const option = options[index];
            option?.setAttribute("aria-selected", "true");
            option?.scrollIntoView({ block: "nearest" });
            this.input.setAttribute("aria-activedescendant", option?.id ?? "");
        }
        searchKey(event) {
            const options = [...this.completions.children];
            if (event.key === "ArrowDown" || event.key === "ArrowUp") {
                if (this.completions.hidden)
                    void this.complete();
                else
                    this.choose((this.chosen + (event.key === "ArrowDown" ? 1 : this.chosen < 0 ? 0 : -1) + options.length) % options.length);
            }
            else if (event.key === "Tab" && !event.shiftKey && !this.completions.hidden && options.length > 0) {
                void this.stepAlong();
            }
            else if (event.key === "Enter") {
                this.accept(this.chosen >= 0 && !this.completions.hidden ? options[this.chosen].textContent ?? "" : this.input.value);
            }
            else if (event.key === "Escape") {
                this.closeCompletions();
            }
            else {
                return;
            }
            event.preventDefault();
            event.stopPropagation();
        }
    }
    treePanel.Panel = Panel;
})(treePanel || (treePanel = {}));

/// What the panels build themselves from.
namespace ui {
    type Child = Node | string;

    export function el<K extends keyof HTMLElementTagNameMap>(tag: K, attributes: { readonly [name: string]: string } = {},
                                                              ...children: Child[]): HTMLElementTagNameMap[K] {
        const element = document.createElement(tag);
        for (const [name, value] of Object.entries(attributes))
            element.setAttribute(name, value);
        element.append(...children);
        return element;
    }

    export function button(text: string, title: string, action: () => void): HTMLButtonElement {
        const element = el("button", { type: "button", title }, text);
        element.addEventListener("click", action);
        return element;
    }

    /// Disabled controls say why.
    export function enable(control: HTMLButtonElement | HTMLInputElement | HTMLSelectElement, whyNot: string): void {
        if (control.dataset.title === undefined)
            control.dataset.title = control.title;
        control.disabled = whyNot !== "";
        const title = whyNot === "" ? control.dataset.title : whyNot;
        if (control.title !== title)
            control.title = title;
    }

    /// Leaves the page alone where nothing has changed.
    export function setText(element: Element, text: string): void {
        if (element.textContent !== text)
            element.textContent = text;
    }

    // Numbers for a person.

    export function number(value: number, digits = 6): string {
        if (Number.isInteger(value) && Math.abs(value) < 1e9)
            return String(value);
        if (!Number.isFinite(value))
            return Number.isNaN(value) ? "nan" : value > 0 ? "inf" : "-inf";
        const size = Math.abs(value);
        return size >= 1e-4 && size < 1e9 ? String(Number(value.toPrecision(digits))) : value.toExponential(digits - 2).replace(/\.?0*e/, "e");
    }
    export function seconds(value: number): string {
        const size = Math.abs(value);
        if (!Number.isFinite(value))
            return "–";
        if (size < 1)
            return (1000 * value).toFixed(size < 0.01 ? 1 : 0) + " ms";
        return size < 120 ? value.toFixed(2) + " s" : number(value, 7) + " s";
    }

    // Drawing.

    const dirty = new Set<() => void>();
    /// Calls `draw` once ahead of the next picture, however often it is asked for.
    export function drawSoon(draw: () => void): void {
        if (dirty.size === 0)
            requestAnimationFrame(() => {
                const draws = [...dirty];
                dirty.clear();
                for (const each of draws)
                    each();
            });
        dirty.add(draw);
    }

    export function color(variable: string): string {
        return getComputedStyle(document.documentElement).getPropertyValue(variable).trim();
    }

    // Lists of which only the rows in sight are on the page.

    export class VirtualList {
        /// Browsers do not make elements of any height; above it, the bar moves more rows than it seems to.
        private static readonly MaxHeight = 8e6;
        private readonly space = el("div", { class: "space", role: "presentation" });
        private readonly rows = new Map<number, HTMLElement>();
        private count = 0;
        /// A row that stays on the page out of sight as well, so that it keeps the focus; -1 for none.
        pinned = -1;
        readonly draw = (): void => this.render();

        /// @param fill  makes the row that of the index; it may have been that of another state of the list
        constructor(readonly viewport: HTMLElement, readonly rowHeight: number, private readonly create: (index: number) => HTMLElement,
                    private readonly fill: (row: HTMLElement, index: number) => void, private readonly moved: () => void = () => undefined) {
            viewport.append(this.space);
            viewport.addEventListener("scroll", () => {
                drawSoon(this.draw);
                this.moved();
            }, { passive: true });
            new ResizeObserver(() => {
                drawSoon(this.draw);
                this.moved();
            }).observe(viewport);
        }

        setCount(count: number): void {
            this.count = count;
            this.space.style.height = this.height + "px";
            drawSoon(this.draw);
        }
        row(index: number): HTMLElement | undefined {
            return this.rows.get(index);
        }
        get visibleCount(): number {
            return Math.ceil(this.viewport.clientHeight / this.rowHeight);
        }
        get first(): number {
            return Math.max(0, Math.min(Math.floor(this.exactFirst), this.count - 1));
        }
        scrollTo(index: number): void {
            const page = this.viewport.clientHeight / this.rowHeight;
            const first = this.exactFirst;
            if (index < first)
                this.viewport.scrollTop = index * this.scale;
            else if (index + 1 > first + page)
                this.viewport.scrollTop = (index + 1 - page) * this.scale;
            this.render();
        }
        scrollToEnd(): void {
            this.viewport.scrollTop = this.height;
        }
        get isAtEnd(): boolean {
            return this.viewport.scrollTop + this.viewport.clientHeight >= this.height - this.rowHeight;
        }

        private get height(): number {
            return Math.min(this.count * this.rowHeight, VirtualList.MaxHeight);
        }
        /// Of the bar, for one row.
        private get scale(): number {
            const page = this.viewport.clientHeight;
            const hidden = this.count - page / this.rowHeight;
            return hidden <= 0 ? this.rowHeight : (this.height - page) / hidden;
        }
        private get exactFirst(): number {
            return this.viewport.scrollTop / this.scale;
        }

        private render(): void {
            const exact = this.exactFirst;
            const begin = Math.max(0, Math.floor(exact) - 2);
            const end = Math.min(this.count, Math.floor(exact) + this.visibleCount + 3);
            for (const [index, row] of this.rows)
                if ((index < begin || index >= end) && (index !== this.pinned || index >= this.count)) {
                    row.remove();
                    this.rows.delete(index);
                }
            for (let index = begin; index < end; ++index)
                this.place(index, exact);
            if (this.pinned >= 0 && this.pinned < this.count && (this.pinned < begin || this.pinned >= end))
                this.place(this.pinned, exact);
        }
        private place(index: number, exact: number): void {
            let row = this.rows.get(index);
            if (row === undefined) {
                row = this.create(index);
                this.rows.set(index, row);
                this.space.append(row);
            }
            row.style.transform = "translateY(" + (this.viewport.scrollTop + (index - exact) * this.rowHeight) + "px)";
            this.fill(row, index);
        }
    }
}

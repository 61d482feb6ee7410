"use strict";
/// What the panels build themselves from.
var ui;
(function (ui) {
    function el(tag, attributes = {}, ...children) {
        const element = document.createElement(tag);
        for (const [name, value] of Object.entries(attributes))
            element.setAttribute(name, value);
        element.append(...children);
        return element;
    }
    ui.el = el;
    function button(text, title, action) {
        const element = el("button", { type: "button", title }, text);
        element.addEventListener("click", action);
        return element;
    }
    ui.button = button;
    /// Disabled controls say why.
    function enable(control, whyNot) {
        if (control.dataset.title === undefined)
            control.dataset.title = control.title;
        control.disabled = whyNot !== "";
        const title = whyNot === "" ? control.dataset.title : whyNot;
        if (control.title !== title)
            control.title = title;
    }
    ui.enable = enable;
    /// Leaves the page alone where nothing has changed.
    function setText(element, text) {
        if (element.textContent !== text)
            element.textContent = text;
    }
    ui.setText = setText;
    // Numbers for a person.
    function number(value, digits = 6) {
        if (Number.isInteger(value) && Math.abs(value) < 1e9)
            return String(value);
        if (!Number.isFinite(value))
            return Number.isNaN(value) ? "nan" : value > 0 ? "inf" : "-inf";
        const size = Math.abs(value);
        return size >= 1e-4 && size < 1e9 ? String(Number(value.toPrecision(digits))) : value.toExponential(digits - 2).replace(/\.?0*e/, "e");
    }
    ui.number = number;
    function seconds(value) {
        const size = Math.abs(value);
        if (!Number.isFinite(value))
            return "–";
        if (size < 1)
            return (1000 * value).toFixed(size < 0.01 ? 1 : 0) + " ms";
        return size < 120 ? value.toFixed(2) + " s" : number(value, 7) + " s";
    }
    ui.seconds = seconds;
    // Drawing.
    const dirty = new Set();
    /// Calls `draw` once ahead of the next picture, however often it is asked for.
    function drawSoon(draw) {
        if (dirty.size === 0)
            requestAnimationFrame(() => {
                const draws = [...dirty];
                dirty.clear();
                for (const each of draws)
                    each();
            });
        dirty.add(draw);
    }
    ui.drawSoon = drawSoon;
    function color(variable) {
        return getComputedStyle(document.documentElement).getPropertyValue(variable).trim();
    }
    ui.color = color;
    // Lists of which only the rows in sight are on the page.
    class VirtualList {
        /// @param fill  makes the row that of the index; it may have been that of another state of the list
        constructor(viewport, rowHeight, create, fill, moved = () => undefined) {
            this.viewport = viewport;
            this.rowHeight = rowHeight;
            this.create = create;
            this.fill = fill;
            this.moved = moved;
            this.space = el("div", { class: "space", role: "presentation" });
            this.rows = new Map();
            this.count = 0;
            /// A row that stays on the page out of sight as well, so that it keeps the focus; -1 for none.
            this.pinned = -1;
            this.draw = () => this.render();
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
        setCount(count) {
            this.count = count;
            this.space.style.height = this.height + "px";
            drawSoon(this.draw);
        }
        row(index) {
            return this.rows.get(index);
        }
        get visibleCount() {
            return Math.ceil(this.viewport.clientHeight / this.rowHeight);
        }
        get first() {
            return Math.max(0, Math.min(Math.floor(this.exactFirst), this.count - 1));
        }
        scrollTo(index) {
            const page = this.viewport.clientHeight / this.rowHeight;
            const first = this.exactFirst;
            if (index < first)
                this.viewport.scrollTop = index * this.scale;
            else if (index + 1 > first + page)
                this.viewport.scrollTop = (index + 1 - page) * this.scale;
            this.render();
        }
        scrollToEnd() {
            this.viewport.scrollTop = this.height;
        }
        get isAtEnd() {
            return this.viewport.scrollTop + this.viewport.clientHeight >= this.height - this.rowHeight;
        }
        get height() {
            return Math.min(this.count * this.rowHeight, VirtualList.MaxHeight);
        }
        /// Of the bar, for one row.
        get scale() {
            const page = this.viewport.clientHeight;
            const hidden = this.count - page / this.rowHeight;
            return hidden <= 0 ? this.rowHeight : (this.height - page) / hidden;
        }
        get exactFirst() {
            return this.viewport.scrollTop / this.scale;
        }
        render() {
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
        place(index, exact) {
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
    /// Browsers do not make elements of any height; above it, the bar moves more rows than it seems to.
    VirtualList.MaxHeight = 8e6;
    ui.VirtualList = VirtualList;
})(ui || (ui = {}));

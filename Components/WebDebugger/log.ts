/// Lines of the log, and what the page itself has to tell.
namespace logPanel {
    import el = ui.el;

    const RowHeight = 20;

    export class Panel {
        private readonly level = el("select", { id: "log-level", "aria-label": "Lines from this level on" });
        private readonly viewport = el("div", { class: "lines", id: "log-lines", role: "log", tabindex: "0", "aria-label": "Log lines" });
        private readonly list: ui.VirtualList;
        private shown: model.Line[] = [];
        private follows = true;
        private readonly draw = (): void => this.render();

        constructor(root: HTMLElement, private readonly session: model.Session) {
            for (const level of [...model.Levels, "none"])
                this.level.append(el("option", level === "info" ? { value: level, selected: "" } : { value: level }, level));
            this.level.addEventListener("change", () => {
                session.setLogLevel(this.level.value);
                ui.drawSoon(this.draw);
            });
            root.append(el("header", {}, el("h2", {}, "Log"), el("label", {}, "from ", this.level)), this.viewport);
            this.list = new ui.VirtualList(this.viewport, RowHeight,
                () => el("div", { class: "line" }, el("time"), el("span", { class: "level" }), el("span", { class: "text" })),
                (row, index) => this.fill(row, this.shown[index]!),
                () => this.follows = this.list.isAtEnd);
            session.lineAdded.add(() => ui.drawSoon(this.draw));
        }

        private fill(row: HTMLElement, line: model.Line): void {
            const [time, level, text] = [...row.children] as [HTMLElement, HTMLElement, HTMLElement];
            row.dataset.level = line.level;
            ui.setText(time, Number.isFinite(line.time) ? new Date(1000 * line.time).toLocaleTimeString([], { hour12: false }) : "");
            ui.setText(level, line.level);
            ui.setText(text, line.text);
            row.title = line.text;
        }

        private render(): void {
            const from = model.Levels.findIndex((level) => level === this.level.value);
            this.shown = this.session.lines.filter(({ level }) =>
                level === "page" || from >= 0 && model.Levels.findIndex((each) => each === level) >= from);
            this.list.setCount(this.shown.length);
            if (this.follows)
                this.list.scrollToEnd();
        }
    }
}

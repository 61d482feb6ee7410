"use strict";
/// Finds the control channel, and puts the panels together.
var main;
(function (main) {
    var el = ui.el;
    const Place = "zel.control";
    function channelOf(port, token) {
        const number = Number(port);
        return Number.isInteger(number) && number > 0 && number < 65536 ? { port: number, token } : null;
    }
    /// The fragment holds a secret: it leaves the address before anything else. It is kept as long as the tab, so that the page may be
    /// loaded again.
    function findChannel() {
        // A "+" of the token is none of a form.
        const settings = new URLSearchParams(location.hash.slice(1).replace(/\+/g, "%2B"));
        history.replaceState(null, "", location.pathname + location.search);
        const fromAddress = channelOf(settings.get("control") ?? "", settings.get("token") ?? "");
        if (fromAddress !== null)
            return fromAddress;
        try {
            const kept = JSON.parse(sessionStorage.getItem(Place) ?? "null");
            return protocol.isMembers(kept) ? channelOf(protocol.textOf(kept.port), protocol.textOf(kept.token)) : null;
        }
        catch {
            return null;
        }
    }
    function keep(channel) {
        sessionStorage.setItem(Place, JSON.stringify({ port: String(channel.port), token: channel.token }));
    }
    function openSocket(port) {
        const scheme = location.protocol === "https:" ? "wss://" : "ws://";
        return new WebSocket(scheme + location.hostname + ":" + port, "zel_stream");
    }
    // Appearance.
    const Themes = ["system", "light", "dark"];
    function setTheme(theme) {
        document.documentElement.dataset.theme = theme;
        localStorage.setItem("zel.theme", theme);
    }
    function makeTabs(panels) {
        const bar = el("div", { class: "tabs", role: "tablist", "aria-label": "Panels" });
        const choose = (index) => panels.forEach((panel, i) => {
            panel.classList.toggle("shown", i === index);
            const tab = bar.children[i];
            tab.setAttribute("aria-selected", String(i === index));
            tab.setAttribute("tabindex", i === index ? "0" : "-1");
        });
        panels.forEach((panel, i) => {
            const tab = el("button", { type: "button", role: "tab", "aria-controls": panel.id }, panel.dataset.tab);
            tab.addEventListener("click", () => choose(i));
            tab.addEventListener("keydown", (event) => {
                const step = event.key === "ArrowRight" ? 1 : event.key === "ArrowLeft" ? -1 : 0;
                if (step === 0)
                    return;
                const next = (i + step + panels.length) % panels.length;
                choose(next);
                bar.children[next].focus();
            });
            bar.append(tab);
        });
        choose(0);
        return bar;
    }
    function panel(id) {
        return document.getElementById(id);
    }
    function run(channel) {
        keep(channel);
        panel("start").hidden = true;
        panel("page").hidden = false;
        const session = new model.Session({
            open: () => openSocket(channel.port),
            later: (action, milliseconds) => {
                const timer = setTimeout(action, milliseconds);
                return () => clearTimeout(timer);
            },
        }, channel.token, () => performance.now());
        const all = new tracks.Tracks(session);
        const watcher = new statistics.Watcher(session, () => performance.now());
        const status = new statusPanel.Panel(panel("status"), session, all);
        const bar = new trackBar.Bar(panel("tracks"), all, session);
        new treePanel.Panel(panel("objects"), session, all);
        new detailsPanel.Panel(panel("details"), session, all);
        const plots = new plotPanel.Panel(panel("plotting"), session, all);
        const particles = new particlePanel.Panel(panel("particles"), session, all);
        new logPanel.Panel(panel("log"), session);
        const timing = panel("timing");
        new timePanel.Panel(timing, watcher, session);
        panel("page").append(makeTabs(["objects", "details", "plotting", "particles", "log", "timing"].map(panel)));
        setInterval(() => all.poll(), tracks.Tracks.pollInterval);
        // Statistics nobody looks at are not worth the simulation's time.
        setInterval(() => {
            if (!document.hidden && (watcher.isOffered === null || timing.offsetParent !== null))
                watcher.poll();
        }, statistics.Watcher.pollInterval);
        const theme = panel("theme");
        const redraw = () => {
            plots.redraw();
            particles.redraw();
        };
        theme.addEventListener("change", () => {
            setTheme(theme.value);
            redraw();
        });
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", redraw);
        panel("other").addEventListener("click", () => {
            sessionStorage.removeItem(Place);
            location.reload();
        });
        document.addEventListener("keydown", (event) => {
            if (event.key !== " " || document.activeElement !== document.body)
                return;
            if (session.clocks.length > 0)
                status.toggle();
            else
                bar.toggle();
            event.preventDefault();
        });
        session.connection.connect();
    }
    function showForm() {
        panel("start").hidden = false;
        panel("start").addEventListener("submit", (event) => {
            event.preventDefault();
            const channel = channelOf(panel("port").value, panel("token").value);
            ui.setText(panel("start-error"), channel === null ? "A port is a number from 1 to 65535." : "");
            if (channel !== null)
                run(channel);
        });
    }
    window.addEventListener("hashchange", () => {
        const other = findChannel();
        if (other === null)
            return;
        keep(other);
        location.reload();
    });
    const channel = findChannel();
    const kept = localStorage.getItem("zel.theme") ?? "";
    const theme = Themes.includes(kept) ? kept : "system";
    setTheme(theme);
    panel("theme").value = theme;
    if (channel === null)
        showForm();
    else
        run(channel);
})(main || (main = {}));

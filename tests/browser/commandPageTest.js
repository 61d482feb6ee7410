// The page of the command server, whose answers fail or come late. No browser is needed: of the document it
// gets what it uses.
"use strict";
const assert = require("node:assert");
const fs = require("fs");
const path = require("path");
const vm = require("vm");

class Element {
    constructor(tag = "") {
        this.tagName = tag.toUpperCase();
        this.style = {};
        this.children = [];
        this.own = "";
    }
    get textContent() {
        return this.own + this.children.map((child) => child.textContent).join(" ");
    }
    set textContent(text) {
        this.own = text;
        this.children = [];
    }
    appendChild(child) {
        this.children.push(child);
        return child;
    }
    replaceChildren(...children) {
        this.children = children;
    }
    addEventListener() {}
}

const page = fs.readFileSync(path.join(__dirname, "../../Components/zel/Web/index.html"), "utf8");
const ids = Object.fromEntries([...page.matchAll(/id="(\w+)"/g)].map(([, id]) => [id, new Element()]));
const requests = [];
const fetch = (uri) => new Promise((resolve, reject) => requests.push({ uri, resolve, reject }));
const names = () => ids.names.children.map((option) => option.value);
const type = (text) => ids.path.oninput({ target: { value: text } });
const choose = (text) => ids.path.onchange({ target: { value: text } });
/// Lets all that waits for an answer go on.
const settle = () => new Promise((resolve) => setImmediate(resolve));
/// Answers the oldest request, or the one at the position.
async function answer(uri, json, position = 0) {
    const [request] = requests.splice(position, 1);
    assert.strictEqual(request.uri, uri);
    if (json === undefined) request.reject(new Error("gone"));
    else request.resolve({ json: async () => json });
    await settle();
}

process.on("unhandledRejection", (error) => {
    console.error(error);
    process.exit(1);
});

(async () => {
    const document = { getElementById: (id) => ids[id], createElement: (tag) => new Element(tag) };
    vm.runInNewContext(/<script>([^]*)<\/script>/.exec(page)[1], { document, fetch });
    const busy = { exception: "busy", uri: "/x" };
    await answer("/zelJournal/NavigationTree", busy);
    assert.strictEqual(ids.tree.textContent, "No answer: busy");

    choose("a");
    await answer("/zelRemote/Command?text=a", busy);
    assert.strictEqual(ids.object.textContent, "No answer: busy");
    choose("a");
    await answer("/zelRemote/Command?text=a", { success: false });
    assert.strictEqual(ids.object.textContent, "There is no such object.");
    choose("a");
    choose("b");
    await answer("/zelRemote/Command?text=b", { success: true, name: "b" }, 1);
    await answer("/zelRemote/Command?text=a", { success: true, name: "a" });
    assert.strictEqual(ids.object.textContent, "success true name b");
    choose("a");
    choose("b");
    await answer("/zelRemote/Command?text=b", { success: true, name: "b" }, 1);
    await answer("/zelRemote/Command?text=a");
    assert.strictEqual(ids.object.textContent, "success true name b");

    type("ship.d");
    await answer("/zelRemote/AutoComplete?text=ship.d", { list: ["deck"] });
    assert.deepStrictEqual(names(), ["ship.deck"]);
    type("s");
    await answer("/zelRemote/AutoComplete?text=s", busy);
    assert.deepStrictEqual(names(), []);
    type("s");
    await answer("/zelRemote/AutoComplete?text=s");
    type("s");
    type("sh");
    await answer("/zelRemote/AutoComplete?text=sh", { list: ["ship"] }, 1);
    await answer("/zelRemote/AutoComplete?text=s", { list: ["ship", "sun"] });
    assert.deepStrictEqual(names(), ["ship"]);
    assert.strictEqual(requests.length, 0);
})();

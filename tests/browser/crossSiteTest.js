// Pages of other sites, in a browser on the machine of the simulation: crossSiteTest.js CASE EXPOSED CHROMIUM, where
// EXPOSED is the program of exposed.cpp. They try all that intruder.js knows; nothing is read, changed or ended.
/* global intruder, which the page has */
"use strict";
const assert = require("node:assert");
const { spawn } = require("child_process");
const fs = require("fs");
const http = require("http");
const os = require("os");
const path = require("path");
const readline = require("readline");
const { chromium } = require("playwright-core");

const [name, program, browserPath] = process.argv.slice(2);
/// A name of another site that a name server leads to this machine.
const Evil = "evil.example";

class Exposed {
    static async start(pages) {
        const exposed = new Exposed();
        exposed.process = spawn(program, [pages], { stdio: ["pipe", "pipe", "inherit"] });
        exposed.ended = new Promise((resolve) => exposed.process.on("exit", (code, signal) => resolve(signal ?? code)));
        exposed.lines = [];
        readline.createInterface({ input: exposed.process.stdout }).on("line", (line) => {
            if (line.startsWith("="))
                exposed.waiting(JSON.parse(line.slice(1)));
        });
        exposed.ports = await exposed.next();
        return exposed;
    }
    next() {
        return Promise.race([new Promise((resolve) => { this.waiting = resolve; }),
            this.ended.then((result) => { throw new Error("the program has ended: " + result); })]);
    }
    /// What has been done to it.
    state() {
        const answer = this.next();
        this.process.stdin.write("\n");
        return answer;
    }
    async stop() {
        this.process.stdin.end();
        assert.strictEqual(await this.ended, 0);
    }
}

function makePages() {
    const pages = fs.mkdtempSync(path.join(os.tmpdir(), "zel-pages-"));
    for (const folder of ["Web", "WebDebugger"]) {
        fs.mkdirSync(path.join(pages, folder));
        fs.writeFileSync(path.join(pages, folder, "index.html"), "<body>the page of " + folder + "</body>");
        fs.writeFileSync(path.join(pages, folder, "data.txt"), "data");
    }
    return pages;
}
/// All files below a folder, with what they hold.
function contentOf(folder) {
    return Object.fromEntries(fs.readdirSync(folder, { recursive: true, withFileTypes: true }).filter((entry) => entry.isFile())
        .map((entry) => [entry.name + " of " + path.basename(entry.path), fs.readFileSync(path.join(entry.path, entry.name), "utf8")]));
}

/// A site of its own, at a port of its own: the page of the intruder, and one that holds it in a sandbox.
function serveIntruder() {
    const script = fs.readFileSync(path.join(__dirname, "intruder.js"), "utf8");
    const page = "<!DOCTYPE html><meta charset=\"utf-8\"><body><script>" + script + "</script>";
    const server = http.createServer((request, response) => {
        response.writeHead(200, { "Content-Type": "text/html" })
            .end(request.url === "/sandbox" ? "<body><iframe sandbox=\"allow-scripts allow-forms\" src=\"/\"></iframe>" : page);
    });
    return new Promise((resolve) => server.listen(0, "127.0.0.1", () => resolve(server)));
}

/// As a program asks, which is no page.
function ask(port, uri) {
    return new Promise((resolve, reject) => {
        http.get({ host: "127.0.0.1", port, path: uri, agent: false }, (response) => {
            let text = "";
            response.on("data", (data) => { text += data; });
            response.on("end", () => resolve(response.statusCode + " " + text.trim()));
        }).on("error", reject);
    });
}

class Scene {
    static async open() {
        const scene = new Scene();
        scene.pages = makePages();
        scene.files = contentOf(scene.pages);
        scene.exposed = await Exposed.start(scene.pages);
        scene.site = await serveIntruder();
        scene.browser = await chromium.launch({
            executablePath: browserPath,
            args: ["--no-sandbox", "--host-resolver-rules=MAP " + Evil + " 127.0.0.1, MAP localhost 127.0.0.1"],
        });
        return scene;
    }
    /// What a page of the host reads from the servers, as it calls them.
    async attack(pageHost, serverHost, sandbox = false) {
        const page = await this.browser.newPage();
        page.setDefaultTimeout(60000);
        await page.goto("http://" + pageHost + ":" + this.site.address().port + (sandbox ? "/sandbox" : "/"));
        const where = sandbox ? page.frames()[1] : page;
        const read = await where.evaluate(([host, ports]) => intruder.attack(host, ports), [serverHost, this.exposed.ports]);
        assert.ok(Object.keys(read).length > 120, "all was tried");
        // A page that leads to a server itself, as a link does.
        const linking = await this.browser.newPage();
        await linking.goto(page.url());
        const from = sandbox ? linking.frames()[1] : linking;
        await from.evaluate((address) => { location.href = address; },
            "http://" + serverHost + ":" + this.exposed.ports.commands + "/zelRemote/Script?text=x");
        await from.waitForURL(/Script/);
        const content = await from.content();
        read["link"] = /Rejecting non-local/.test(content) ? null : content;
        await page.close();
        await linking.close();
        return read;
    }
    async expectNothing(pageHost, serverHost, sandbox = false) {
        const before = await this.exposed.state();
        const read = await this.attack(pageHost, serverHost, sandbox);
        const gained = Object.entries(read).filter(([, text]) => text !== null && !/Rejecting non-local/.test(text));
        assert.deepStrictEqual(gained, [], "what was read");
        assert.deepStrictEqual(await this.exposed.state(), before);
    }
    async close() {
        const { commands, debugger: pagePort } = this.exposed.ports;
        assert.match(await ask(commands, "/data.txt"), /^200 data$/);
        assert.match(await ask(commands, "/zelRemote/Command?text=speed"), /^200 .*"success":true/);
        assert.match(await ask(pagePort, "/"), /^200 .*the page of WebDebugger/);
        assert.deepStrictEqual(contentOf(this.pages), this.files);
        await this.browser.close();
        await this.exposed.stop();
        this.site.close();
        fs.rmSync(this.pages, { recursive: true });
    }
}

const cases = {
    async by_the_other_name_of_this_machine(scene) {
        await scene.expectNothing("localhost", "127.0.0.1");
        await scene.expectNothing("127.0.0.1", "localhost");
    },
    async of_a_name_elsewhere(scene) {
        await scene.expectNothing(Evil, "127.0.0.1");
        await scene.expectNothing(Evil, "localhost");
    },
    async that_a_name_server_has_led_here(scene) {
        await scene.expectNothing(Evil, Evil);
    },
    async in_a_sandbox(scene) {
        await scene.expectNothing("127.0.0.1", "127.0.0.1", true);
    },
    /// So that it is the rules that keep the others out, and not attempts that cannot succeed.
    async of_this_machine_are_kept_out_by_the_token_alone(scene) {
        const before = await scene.exposed.state();
        const read = await scene.attack("127.0.0.1", "127.0.0.1");
        const after = await scene.exposed.state();
        assert.ok(after.touched > before.touched && after.scripts > before.scripts, "requests of the same host are answered");
        assert.strictEqual(after.speed, 7, "a channel without token obeys");
        assert.match(read["WebSocket open zel_stream"], /"name":"speed"/);
        assert.strictEqual(read["WebSocket closed zel_stream"], Array(3).fill("Error: not authenticated!").join("\n"));
        assert.strictEqual(after.messages - before.messages, 3, "of the open channel alone");
        const gained = Object.entries(read).filter(([what, text]) => text !== null && !/^(WebSocket (open|closed)|link)/.test(what));
        assert.deepStrictEqual(gained, [], "another port is another origin, whose answers no page reads");
    },
};

(async () => {
    const scene = await Scene.open();
    await cases[name](scene);
    await scene.close();
})().catch((error) => {
    console.error(error);
    process.exit(1);
});

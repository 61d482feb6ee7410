// What the cases of pageTest.js drive the page with.
"use strict";
const assert = require("node:assert");
const { spawn } = require("child_process");
const path = require("path");
const { isDeepStrictEqual } = require("node:util");
const readline = require("readline");
const { chromium } = require("playwright-core");
const { Mock } = require("./mock.js");

const [program, browserPath, pictures] = process.argv.slice(3);
const Wide = { width: 1280, height: 800 };
const Narrow = { width: 390, height: 844 };
/// What no machine needs, in ms.
const Bound = 60000;

class Simulation {
    static async start(...options) {
        const simulation = new Simulation();
        simulation.process = spawn(program, options, { stdio: ["pipe", "pipe", "inherit"] });
        simulation.ended = new Promise((resolve) => simulation.process.on("exit", resolve));
        for await (const line of readline.createInterface({ input: simulation.process.stdout }))
            if (line.startsWith("http://")) {
                simulation.address = line;
                simulation.process.stdout.resume();
                return simulation;
            }
        throw new Error("the simulation has not started");
    }
    get ports() {
        const { port, hash } = new URL(this.address);
        return [/control=(\d+)/.exec(hash)[1], port];
    }
    warn(text) {
        this.process.stdin.write(text + "\n");
    }
    async stop() {
        this.process.stdin.end();
        assert.strictEqual(await this.ended, 0);
    }
}

/// A page, and all that may be wrong with it.
class Browser {
    constructor() {
        this.faults = [];
        this.hosts = new Set();
        /// Console errors that a case provokes.
        this.expected = /^$/;
    }
    static async start() {
        const browser = new Browser();
        browser.browser = await chromium.launch({
            executablePath: browserPath,
            args: ["--no-sandbox", "--use-gl=angle", "--use-angle=swiftshader", "--enable-unsafe-swiftshader"],
        });
        return browser;
    }
    async open(address, viewport = Wide, options = {}) {
        const page = await this.browser.newPage({ viewport, ...options });
        page.setDefaultTimeout(Bound);
        page.on("console", (message) => {
            if (message.type() === "error" && !this.expected.test(message.text()))
                this.faults.push(message.text());
        });
        page.on("pageerror", (error) => this.faults.push(error.stack));
        page.on("request", (request) => this.hosts.add(new URL(request.url()).hostname));
        page.on("websocket", (socket) => this.hosts.add(new URL(socket.url()).hostname));
        await page.goto(address);
        return page;
    }
    async close() {
        await this.browser.close();
        assert.deepStrictEqual(this.faults, []);
        assert.deepStrictEqual([...this.hosts], ["127.0.0.1"]);
    }
}

// What the cases do.

function until(page, condition, argument) {
    return page.waitForFunction(condition, argument, { timeout: Bound });
}
/// Until something here, as of the mock server, is as it must be.
async function untilEqual(read, expected) {
    for (const end = Date.now() + Bound; Date.now() < end && !isDeepStrictEqual(read(), expected);)
        await new Promise((resolve) => setTimeout(resolve, 10));
    assert.deepStrictEqual(read(), expected);
}
function textOf(page, selector) {
    return page.locator(selector).textContent();
}
function untilText(page, selector, pattern) {
    return until(page, ([place, source]) => new RegExp(source).test(document.querySelector(place)?.textContent ?? ""), [selector, pattern.source]);
}
async function numberIn(page, selector) {
    return parseFloat(await textOf(page, selector));
}
function running(page) {
    return untilText(page, "#state", /^Running$/);
}
async function goTo(page, where) {
    await page.fill("#search", where);
    await page.press("#search", "Enter");
    await untilText(page, "#details .facts", new RegExp(where.replace(/\./g, "\\.")));
    // The tree follows, and takes the focus.
    await until(page, () => document.activeElement.matches(".row[aria-selected=true]"));
}
async function plot(page, where) {
    await goTo(page, where);
    await page.click("#details .current button");
}
async function picture(page, name) {
    if (pictures !== undefined)
        await page.screenshot({ path: path.join(pictures, name + ".png") });
}
/// How many colours an element shows.
async function coloursOf(page, selector) {
    const png = (await page.locator(selector).screenshot()).toString("base64");
    return page.evaluate(async (data) => {
        const bytes = Uint8Array.from(atob(data), (letter) => letter.charCodeAt(0));
        const bitmap = await createImageBitmap(new Blob([bytes], { type: "image/png" }));
        const context = new OffscreenCanvas(bitmap.width, bitmap.height).getContext("2d");
        context.drawImage(bitmap, 0, 0);
        return new Set(new Uint32Array(context.getImageData(0, 0, bitmap.width, bitmap.height).data.buffer)).size;
    }, png);
}
/// The labels and numbers below the plots.
function curves(page) {
    return page.locator(".chip").evaluateAll((chips) => Object.fromEntries(chips.map((chip) =>
        [chip.querySelector(".label").textContent, chip.querySelector(".number").textContent])));
}

// A server that does what the case wants.

async function withMock(browser, options, use, viewport) {
    const mock = new Mock(options);
    await mock.start();
    const page = await browser.open(mock.address + "#control=" + mock.port + "&token=secret", viewport);
    await use(page, mock);
    await mock.stop();
}

module.exports = {
    Simulation, Browser, Wide, Narrow, until, untilText, untilEqual, textOf, numberIn, running, goTo, plot, picture, coloursOf, curves, withMock,
};

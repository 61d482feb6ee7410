// Drives the page in a browser: pageTest.js CASE BODIES CHROMIUM, where BODIES is the program of bodies.cpp.
// With a fourth argument, pictures of the page are written into that folder.
"use strict";
const assert = require("node:assert");
const fs = require("fs");
const os = require("os");
const { spawn } = require("child_process");
const path = require("path");
const readline = require("readline");
const { chromium } = require("playwright-core");
const { Mock } = require("./mock.js");

const [name, program, browserPath, pictures] = process.argv.slice(2);
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

// Cases with the true simulation.

const cases = {
    async shows_how_the_simulation_does(page) {
        await untilText(page, "#fps", /^[1-9].* of 60$/);
        await untilText(page, "#speed", /^[0-9.]+ of 1 s\/s$/);
        await untilText(page, "#drift", /^[+−]/);
        await untilText(page, "#answer", /ms$/);
        const [time, frame] = [await numberIn(page, "#time"), await numberIn(page, "#frame")];
        await until(page, ([t, f]) => parseFloat(document.querySelector("#time").textContent) > t &&
            parseFloat(document.querySelector("#frame").textContent) > f, [time, frame]);
        assert.match(await textOf(page, "#detail"), /^process \d+$/);
    },
    async expands_and_selects_by_keys(page) {
        await page.locator("#tree [role=treeitem]").first().focus();
        const focused = () => page.evaluate(() => document.activeElement.querySelector(".name")?.textContent);
        await page.keyboard.type("sim");
        await until(page, () => document.activeElement.querySelector(".name")?.textContent === "Simulation");
        await page.keyboard.press("ArrowRight");
        await page.waitForSelector("[role=treeitem]:has-text('gravity')");
        assert.strictEqual(await page.evaluate(() => document.activeElement.getAttribute("aria-expanded")), "true");
        await page.keyboard.press("ArrowDown");
        await page.keyboard.press("ArrowDown");
        assert.strictEqual(await focused(), "gravity");
        await page.keyboard.press("Enter");
        await untilText(page, "#value", /^9\.81$/);
        await page.keyboard.press("ArrowLeft");
        assert.strictEqual(await focused(), "Simulation");
        await page.keyboard.press("ArrowLeft");
        await until(page, () => ![...document.querySelectorAll(".row .name")].some(({ textContent }) => textContent === "gravity"));
        assert.strictEqual(await page.locator("[role=treeitem][tabindex='0']").count(), 1);
    },
    async completes_paths(page) {
        await page.focus("#search");
        await page.keyboard.type("simulation.b");
        await untilText(page, "#completions", /bodies/);
        await page.keyboard.press("Tab");
        await untilText(page, "#completions", /position/);
        await page.keyboard.type("pos");
        await until(page, () => document.querySelectorAll("#completions li").length === 1);
        await page.keyboard.press("ArrowDown");
        await page.keyboard.press("Enter");
        await untilText(page, "#details .facts", /bodies\.position.*Vec3:64bit/);
        assert.strictEqual(await page.locator("[role=treeitem][aria-selected=true] .name").textContent(), "position");
        await page.fill("#search", "Simulation.nothing");
        await page.press("#search", "Enter");
        await untilText(page, "#objects .error", /Simulation\.nothing/);
    },
    async plots_move_and_freeze(page) {
        await plot(page, "Simulation.energy");
        await plot(page, "Simulation.wind");
        assert.deepStrictEqual(Object.keys(await curves(page)), ["Simulation.energy", "Simulation.wind.x", "Simulation.wind.y", "Simulation.wind.z"]);
        const { "Simulation.energy": before } = await curves(page);
        await until(page, (text) => document.querySelector(".chip .number").textContent !== text && !Number.isNaN(parseFloat(text)), before);
        await page.click("text=Freeze");
        await untilText(page, ".bar", /Go on/);
        const still = (await page.locator(".canvas canvas").screenshot()).toString("base64");
        const frame = await numberIn(page, "#frame");
        await until(page, (past) => parseFloat(document.querySelector("#frame").textContent) > past + 30, frame);
        assert.strictEqual((await page.locator(".canvas canvas").screenshot()).toString("base64"), still);
        await page.click("text=Go on");
        await page.click("[title='Remove Simulation.wind.y']");
        assert.deepStrictEqual(Object.keys(await curves(page)), ["Simulation.energy", "Simulation.wind.x", "Simulation.wind.z"]);
        await until(page, (text) => document.querySelector(".chip .number").textContent !== text, before);
        await page.click(".plot >> text=Close");
        assert.strictEqual(await page.locator(".plot").count(), 0);
    },
    async one_cursor_for_all_plots(page) {
        await page.selectOption("#plot-target", "new");
        await plot(page, "Simulation.energy");
        await plot(page, "Simulation.gravity");
        const frame = await numberIn(page, "#frame");
        await until(page, (past) => parseFloat(document.querySelector("#frame").textContent) > past + 120, frame);
        await page.click("#pause");
        await untilText(page, "#state", /^Paused$/);
        const box = await page.locator(".u-over").first().boundingBox();
        await page.mouse.move(box.x + 0.8 * box.width, box.y + 10);
        await untilText(page, "#cursor-time", /^at [0-9.]+ s$/);
        const time = await textOf(page, "#cursor-time");
        await until(page, () => [...document.querySelectorAll(".u-cursor-x")].every((line) => parseFloat(line.style.transform.slice(10)) > 0));
        await page.locator(".canvas").nth(1).focus();
        await page.keyboard.press("ArrowLeft");
        await until(page, (before) => document.querySelector("#cursor-time").textContent !== before, time);
    },
    async values_are_set_and_seen(page) {
        await plot(page, "Simulation.gravity");
        await page.fill("#new-value", "3.5");
        await page.click("#set-value");
        await untilText(page, "#value", /^3\.5$/);
        await untilText(page, ".chip .number", /^3\.5$/);
        await untilText(page, ".row[aria-selected=true] .value", /^3\.5$/);
    },
    async wrong_values_are_refused_where_they_are_entered(page) {
        await goTo(page, "Simulation.gravity");
        await page.fill("#new-value", "Simulation.nowhere");
        await page.click("#set-value");
        await page.waitForSelector("#details-error:not(:empty)");
        await untilText(page, "#value", /^9\.81$/);
        await page.fill("#frequency-value", "-5");
        await page.click("#frequency");
        await page.waitForSelector("#control-error:not(:empty)");
        await page.fill("#frequency-value", "fast");
        await page.click("#frequency");
        await untilText(page, "#control-error", /^Frequency wants a number, not 'fast'\.$/);
    },
    async the_clock_pauses_steps_and_runs(page) {
        await page.evaluate(() => document.activeElement.blur());
        await page.keyboard.press(" ");
        await untilText(page, "#state", /^Paused$/);
        await untilText(page, "#pause", /^Run$/);
        const frame = await numberIn(page, "#frame");
        await page.fill("#step-value", "3");
        await page.click("#step");
        await untilText(page, "#frame", new RegExp("^" + (frame + 3) + "$"));
        const time = await numberIn(page, "#time");
        await page.fill("#stepTo-value", String(time + 1));
        await page.press("#stepTo-value", "Enter");
        await until(page, (least) => parseFloat(document.querySelector("#time").textContent) >= least, time + 0.99);
        await page.fill("#modulation-value", "2");
        await page.press("#modulation-value", "Enter");
        await page.fill("#frequency-value", "30");
        await page.press("#frequency-value", "Enter");
        await page.click("#pause");
        await running(page);
        await untilText(page, "#fps", /of 30$/);
        await untilText(page, "#speed", /of 2 s\/s$/);
    },
    async buffers_are_shown_live(page) {
        await goTo(page, "Simulation.bodies.position");
        const cell = "#elements .cells[data-index='0'] [role=gridcell]:nth-child(2)";
        await untilText(page, cell, /^-?[0-9.]+$/);
        const before = await textOf(page, cell);
        await until(page, ([place, text]) => document.querySelector(place).textContent !== text, [cell, before]);
        await page.focus("#elements");
        await page.keyboard.press("End");
        await untilText(page, "#elements .cells[data-index='399'] [role=gridcell]:nth-child(3)", /^-?[0-9.]+$/);
        await page.keyboard.press("ArrowRight");
        await page.keyboard.press("Enter");
        await untilText(page, ".chip .label", /^Simulation\.bodies\.position\[399\]\.y$/);
        await untilText(page, ".chip .number", /^-?[0-9.]+$/);
        await goTo(page, "Simulation.bodies.name");
        await untilText(page, "#elements .cells[data-index='5'] [role=gridcell]:nth-child(2)", /body 5/);
    },
    async particles_are_drawn_and_turned(page) {
        await untilText(page, "#particles-legend", /^400 of 400$/);
        assert.strictEqual(await page.inputValue("#positions"), "Simulation.bodies.position");
        assert.ok(await coloursOf(page, "#particles-canvas") > 20);
        await page.selectOption("#colors", { label: "velocity" });
        await untilText(page, "#particles-legend", /^400 of 400; velocity [0-9.]+ to [0-9.]+$/);
        await page.click("#pause");
        await untilText(page, "#state", /^Paused$/);
        const shot = async () => (await page.locator("#particles-canvas").screenshot()).toString("base64");
        await page.focus("#particles-canvas");
        const before = await shot();
        await page.keyboard.press("ArrowLeft");
        const turned = await shot();
        assert.notStrictEqual(turned, before);
        await page.mouse.move(640, 560);
        await page.mouse.wheel(0, 300);
        await until(page, () => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => resolve(true)))));
        assert.notStrictEqual(await shot(), turned);
    },
    async log_lines_are_shown_by_level(page, { simulation }) {
        simulation.warn("The left wheel is hot");
        await untilText(page, "#log-lines", /warning *The left wheel is hot/);
        await page.selectOption("#log-level", "error");
        await until(page, () => !document.querySelector("#log-lines").textContent.includes("wheel"));
        await page.selectOption("#log-level", "warning");
        await untilText(page, "#log-lines", /The left wheel is hot/);
    },
    async recordings_of_a_run_are_opened_moved_and_closed(page, { browser, withRecordings }) {
        const { address } = await withRecordings();
        const other = await browser.open(address);
        await running(other);
        await untilText(other, "#recordings", /heavy.*light/);
        await other.click("#recordings li:nth-child(1) button");
        await untilText(other, "#recordings li:nth-child(1) .note", /^601 frames$/);
        await untilText(other, "#track-position", /^0\.000 s, frame 0$/);
        await other.fill("#search", "heavy.simulation.en");
        await untilText(other, "#completions", /^heavy\.Simulation\.energy$/);
        await goTo(other, "heavy.Simulation.energy");
        await untilText(other, "#value", /^-1$/);
        await other.focus("#track-time");
        await other.keyboard.press("End");
        await untilText(other, "#track-position", /^10\.000 s, frame 600$/);
        await untilText(other, "#value", new RegExp("^" + String(-1 + 0.1 * Math.sin(30)).slice(0, 8).replace(".", "\\.")));
        await other.keyboard.press("ArrowLeft");
        await untilText(other, "#track-position", /frame 599$/);
        const box = await other.locator("#track-time").boundingBox();
        await other.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
        await untilTime(other, 4.5, 5.5);
        const time = await placeOf(other);
        await other.click("#play");
        await untilTime(other, time + 0.5, 10);
        await other.click("#play");
        await untilText(other, "#play", /^Play$/);
        await goTo(other, "heavy.Simulation.bodies.position");
        await untilText(other, "#elements .cells[data-index='0'] [role=gridcell]:nth-child(2)", /^-?[0-9.]+$/);
        await other.selectOption("#positions", "heavy.Simulation.bodies.position");
        await untilText(other, "#particles-legend", /^400 of 400/);
        await other.click("#recordings li:nth-child(1) button");
        await until(other, () => document.querySelector("#play").offsetParent === null);
        await running(other);
    },
    async a_recording_of_the_run_itself_grows(page, { browser, withRecordings }) {
        const { address } = await withRecordings("--record");
        const other = await browser.open(address);
        await running(other);
        await other.click("#recordings li:nth-child(3) button");
        await untilText(other, "#recordings li:nth-child(3) .note", /^[0-9]+ frames, being written$/);
        await plot(other, "now.energy");
        await untilRead(other);
        const end = await other.locator("#track-time").getAttribute("max").then(Number);
        await until(other, (least) => Number(document.querySelector("#track-time").max) > least + 1, end);
        await until(other, () => document.querySelector(".progress").textContent === "");
        await other.focus("#track-time");
        await other.keyboard.press("End");
        await untilTime(other, end + 1, 1e9);
        await until(other, () => document.querySelector(".chip .number").textContent !== "–");
        await running(other);
    },
    async recordings_alone_are_played_plotted_and_compared(page, { browser, withRecordings }) {
        const { address } = await withRecordings("--alone");
        const other = await browser.open(address);
        await untilText(other, "#state", /^Recording$/);
        await untilText(other, "#time", /^0\.000 s$/);
        await other.waitForSelector("[role=treeitem]:has-text('heavy')");
        await plot(other, "heavy.Simulation.energy");
        await untilRead(other);
        assert.deepStrictEqual(await other.locator(".chip").evaluateAll((chips) => chips.map(({ title }) => title)), ["heavy: Simulation.energy", "light: Simulation.energy"]);
        const over = await overOf(other);
        await other.mouse.click(over.x + 0.5 * over.width, over.y + 20);
        await untilTime(other, 4.8, 5.2);
        await other.mouse.move(0, 0);
        // The curves tell of each what the value does that the recording shows.
        const time = await placeOf(other);
        const near = (curve, gravity) => until(other, ([place, wanted]) => Math.abs(parseFloat(document.querySelectorAll(".chip .number")[place].textContent) - wanted) < 1e-4,
            [curve, -1 + 0.01 * gravity * Math.sin(3 * time)]);
        await near(0, 10);
        await near(1, 5);
        for (const [path, gravity] of [["heavy", 10], ["light", 5]]) {
            await goTo(other, path + ".Simulation.energy");
            await until(other, (wanted) => Math.abs(parseFloat(document.querySelector("#value").textContent) - wanted) < 1e-4, -1 + 0.01 * gravity * Math.sin(3 * time));
        }
        await other.click("text=Difference");
        await until(other, (wanted) => Math.abs(parseFloat(document.querySelectorAll(".chip .number")[2]?.textContent) - wanted) < 1e-4, 0.05 * Math.sin(3 * time));
        // An element of a buffer, in both.
        await other.selectOption("#plot-target", "new");
        await goTo(other, "light.Simulation.bodies.position");
        await other.waitForSelector("#elements .cells[data-index='1']");
        await other.focus("#elements");
        await other.keyboard.press("Enter");
        await until(other, () => document.querySelectorAll(".plot:nth-child(2) .chip").length === 2 || document.querySelectorAll(".plot").length === 2);
        await untilRead(other);
        assert.deepStrictEqual(await other.locator(".plot .error:not(:empty)").count(), 0);
        await other.selectOption("#positions", "heavy.Simulation.bodies.position");
        await other.click("#side-by-side");
        await untilText(other, "#other-particles-legend", /^400 of 400/);
        await picture(other, "debugger-recordings");
        // Both to the end: the shorter one waits.
        await other.fill("#track-rate", "20");
        await other.press("#track-rate", "Enter");
        await other.click("#play");
        await untilText(other, "#track-position", /^10\.000 s/);
        await untilText(other, "#play", /^Play$/);
        await untilText(other, "#state", /^Recording$/);
    },
    async comes_back_after_a_restart(page, { simulation, browser, restart }) {
        browser.expected = /WebSocket connection to/;
        await plot(page, "Simulation.energy");
        await untilText(page, ".chip .number", /[0-9]/);
        const { ports } = simulation;
        await simulation.stop();
        await untilText(page, "#state", /^Connection lost$/);
        assert.strictEqual(await page.isDisabled("#pause"), true);
        assert.strictEqual(await page.getAttribute("#pause", "title"), "There is no connection.");
        const number = await textOf(page, ".chip .number");
        await restart(...ports);
        await running(page);
        await until(page, (text) => document.querySelector(".chip .number").textContent !== text, number);
        assert.strictEqual(await page.isDisabled("#pause"), false);
    },
    async secrets_leave_the_address(page) {
        assert.strictEqual(new URL(page.url()).hash, "");
        await page.reload();
        await running(page);
        assert.deepStrictEqual(await page.evaluate(() => Object.keys(localStorage)), ["zel.theme"]);
        await page.click("#other");
        await page.waitForSelector("#start:visible");
        assert.strictEqual(await page.evaluate(() => JSON.stringify(sessionStorage)), "{}");
    },
    async a_form_where_the_address_names_no_channel(page, { simulation, browser }) {
        const other = await browser.open(simulation.address.replace(/#.*/, ""));
        await other.fill("#port", "seventy");
        await other.click("text=Connect");
        await untilText(other, "#start-error", /1 to 65535/);
        await other.fill("#port", simulation.ports[0]);
        await other.fill("#token", "secret");
        await other.press("#token", "Enter");
        await running(other);
    },
    async a_wrong_token_is_told(page, { simulation, browser }) {
        const other = await browser.open(simulation.address.replace("secret", "guess"));
        await untilText(other, "#state", /^Refused$/);
        await untilText(other, "#detail", /^The token is not that of the control channel\.$/);
        assert.strictEqual(await other.locator("[role=treeitem]").count(), 0);
    },
    async read_only_services_say_so(page, { browser, restart }) {
        const reading = await restart("--read-only");
        const other = await browser.open(reading.address);
        await running(other);
        await goTo(other, "Simulation.gravity");
        for (const control of ["#pause", "#step", "#frequency-value", "#set-value"]) {
            assert.strictEqual(await other.isDisabled(control), true);
            assert.strictEqual(await other.getAttribute(control, "title"), "The program offers this simulation for reading only.");
        }
        assert.match(await textOf(other, "#detail"), /read only$/);
    },
    async thousands_of_objects_stay_few_rows(page) {
        await goTo(page, "Simulation.sensors");
        await page.keyboard.press("ArrowRight");
        await page.waitForSelector(".row:has-text('sensor0')");
        assert.ok(await page.locator("[role=treeitem]").count() < 60);
        await goTo(page, "Simulation.sensors.sensor1499");
        await page.waitForSelector(".row[aria-selected=true]:has-text('sensor1499')");
        assert.strictEqual(await page.getAttribute(".row[aria-selected=true]", "aria-setsize"), "1500");
        assert.ok(await page.locator("[role=treeitem]").count() < 60);
        // On the way up, each row is there.
        await page.keyboard.press("Home");
        await page.waitForSelector(".row:has-text('Root')");
    },
    async fits_wide_and_narrow_screens(page, { simulation, browser }) {
        const choose = async (each, name) => {
            await each.locator(".row .name", { hasText: new RegExp("^" + name + "$") }).dblclick();
            await untilText(each, "#details .facts", new RegExp(name));
        };
        const fill = async (each) => {
            await each.selectOption("#plot-target", "new");
            await choose(each, "Simulation");
            await choose(each, "energy");
            await each.click("#details .current button");
            await choose(each, "bodies");
            await choose(each, "position");
            await each.waitForSelector("#elements .cells[data-index='3']");
            await each.locator("#elements .cells[data-index='3'] [role=gridcell]").nth(1).dblclick();
            await each.selectOption("#colors", { label: "velocity" });
            simulation.warn("The bearing of wheel 3 is warm");
            const frame = await numberIn(each, "#frame");
            await until(each, (past) => parseFloat(document.querySelector("#frame").textContent) > past + 240, frame);
        };
        // Nothing sticks out, neither of the page nor of a panel.
        const surplus = (each) => each.evaluate(() => [document.documentElement, ...document.querySelectorAll("#status, .panel")]
            .filter((element) => element.scrollWidth > element.clientWidth + 1).map(({ id }) => id));
        await fill(page);
        await page.locator(".canvas").first().hover();
        assert.deepStrictEqual(await surplus(page), []);
        await picture(page, "debugger-wide");
        await page.selectOption("#theme", "dark");
        assert.strictEqual(await page.evaluate(() => getComputedStyle(document.body).backgroundColor), "rgb(16, 19, 24)");
        await picture(page, "debugger-dark");

        await page.selectOption("#theme", "light");
        await page.setViewportSize(Narrow);
        for (const tab of ["Objects", "Details", "Plots", "Particles", "Log"]) {
            await page.getByRole("tab", { name: tab }).click();
            await until(page, () => [...document.querySelectorAll(".panel")].filter((panel) => panel.checkVisibility()).length === 1);
            assert.deepStrictEqual(await surplus(page), [], tab);
            await until(page, () => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => resolve(true)))));
            await picture(page, "debugger-narrow-" + tab.toLowerCase());
        }
        const dark = await browser.open(simulation.address, Narrow, { colorScheme: "dark" });
        await running(dark);
        assert.strictEqual(await dark.evaluate(() => getComputedStyle(document.body).backgroundColor), "rgb(16, 19, 24)");
    },
};

// Cases with a server that lies.

async function withMock(browser, options, use, viewport) {
    const mock = new Mock(options);
    await mock.start();
    const page = await browser.open(mock.address + "#control=" + mock.port + "&token=secret", viewport);
    await use(page, mock);
    await mock.stop();
}
function placeOf(page) {
    return numberIn(page, "#track-position");
}
/// Until the bar of the recordings shows a time that is in the range.
function untilTime(page, least, most) {
    return until(page, ([from, to]) => {
        const time = parseFloat(document.querySelector("#track-position").textContent);
        return time >= from && time <= to;
    }, [least, most]);
}
/// The canvas of a plot, where the pointer may go.
async function overOf(page, index = 0) {
    return page.locator(".u-over").nth(index).boundingBox();
}
function untilRead(page) {
    return until(page, () => [...document.querySelectorAll(".progress")].every(({ textContent }) => !textContent.startsWith("reading")) &&
        [...document.querySelectorAll(".chip .number")].every(({ textContent }) => textContent !== "–"));
}
const Two = [{ name: "stiff", frames: 1200, amplitude: 0.1 }, { name: "soft", frames: 900, amplitude: 0.2 }];
const TwoOpen = Two.map((recording) => ({ ...recording, open: true }));

const mockCases = {
    async recordings_beside_a_run_are_opened_and_driven(browser) {
        await withMock(browser, { recordings: Two }, async (page) => {
            await running(page);
            await untilText(page, "#recordings", /stiff.*soft/);
            assert.strictEqual(await page.isVisible("#play"), false);
            await page.click("#recordings li:nth-child(1) button");
            await page.waitForSelector("#play:visible");
            await page.waitForSelector("[role=treeitem]:has-text('Recording0')");
            await goTo(page, "Recording0.Simulation.energy");
            await untilText(page, "#value", /^-1$/);
            assert.strictEqual(await page.locator("#set-value").count(), 0);
            // By the keyboard: a frame, a twentieth of the run, its end.
            await page.focus("#track-time");
            await page.keyboard.press("ArrowRight");
            await untilText(page, "#track-position", /^0\.017 s, frame 1$/);
            assert.strictEqual(await page.getAttribute("#track-time", "aria-valuetext"), "0.017 s, frame 1");
            await untilText(page, "#value", /^-0\.995/);
            await page.keyboard.press("PageUp");
            await untilTime(page, 1, 1.1);
            await page.keyboard.press("End");
            await untilText(page, "#track-position", /frame 1199$/);
            await page.keyboard.press("Home");
            await untilText(page, "#track-position", /frame 0$/);
            // By the pointer.
            const box = await page.locator("#track-time").boundingBox();
            await page.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
            await untilTime(page, 9.5, 10.5);
            await page.click("#step-back");
            const time = await placeOf(page);
            await page.fill("#track-rate", "4");
            await page.press("#track-rate", "Enter");
            await page.click("#play");
            await untilText(page, "#play", /^Pause$/);
            await untilTime(page, time + 0.5, 20);
            await page.click("#play");
            await untilText(page, "#play", /^Play$/);
            await page.fill("#track-rate", "none");
            await page.press("#track-rate", "Enter");
            await untilText(page, "#track-error", /^Rate wants a number other than 0, not 'none'\.$/);
            await page.click("#recordings li:nth-child(1) button");
            await until(page, () => ![...document.querySelectorAll(".row .name")].some(({ textContent }) => textContent === "Recording0"));
            assert.strictEqual(await page.isVisible("#play"), false);
            await running(page);
        });
    },
    async recordings_play_within_their_range(browser) {
        await withMock(browser, { live: false, recordings: TwoOpen }, async (page, mock) => {
            await untilText(page, "#track-position", /^0\.000 s, frame 0$/);
            await page.focus("#track-time");
            await page.keyboard.press("PageUp");
            await untilTime(page, 0.9, 1.1);
            await page.click("#range-start");
            await page.focus("#track-time");
            await page.keyboard.press("PageUp");
            await untilTime(page, 1.9, 2.1);
            await page.click("#range-end");
            await page.waitForSelector("#range-whole:visible");
            assert.deepStrictEqual(mock.tracks.map(({ range }) => [range.start.toFixed(1), range.end.toFixed(1)]), [["1.0", "2.0"], ["1.0", "2.0"]]);
            // From the end on, it begins again; without anything focused, space plays.
            await page.evaluate(() => document.activeElement.blur());
            await page.keyboard.press(" ");
            await untilText(page, "#play", /^Pause$/);
            await untilTime(page, 0.9, 1.5);
            await untilText(page, "#play", /^Play$/);
            await untilTime(page, 1.9, 2.1);
            await page.click("#range-whole");
            await until(page, () => document.querySelector(".marked").hidden);
        });
    },
    async curves_of_recordings_span_the_run(browser) {
        await withMock(browser, { recordings: [{ name: "long", frames: 20000, open: true }] }, async (page, mock) => {
            await running(page);
            await page.waitForSelector("#play:visible");
            await plot(page, "Recording0.Simulation.energy");
            await untilRead(page);
            await untilText(page, ".progress", /^5 frames a point$/);
            assert.deepStrictEqual(Object.keys(await curves(page)), ["Recording0.Simulation.energy"]);
            let over = await overOf(page);
            await page.mouse.click(over.x + over.width / 2, over.y + 20);
            await untilTime(page, 160, 173);
            await until(page, () => Math.abs(parseFloat(document.querySelector(".now").style.transform.slice(11)) - document.querySelector(".u-over").clientWidth / 2) < 3);
            // In detail, by a selection; the double click goes back, and seeks nothing.
            await page.mouse.move(over.x + 0.25 * over.width, over.y + 20);
            await page.mouse.down();
            await page.mouse.move(over.x + 0.27 * over.width, over.y + 30, { steps: 4 });
            await page.mouse.up();
            await untilText(page, ".progress", /^$/);
            const series = mock.requests.filter(({ uri }) => uri === "Track.Series").map(({ header }) => header);
            assert.strictEqual(series.length, 2);
            assert.ok(Math.abs(series[1].start - 0.25 * 19999 / 60) < 2 && Math.abs(series[1].end - 0.27 * 19999 / 60) < 2, JSON.stringify(series[1]));
            await page.waitForSelector(".plot >> text=Whole run");
            const seeks = () => mock.requests.filter(({ header }) => header.action === "seekTime").length;
            const before = seeks();
            await page.mouse.dblclick(over.x + 0.5 * over.width, over.y + 20);
            await untilText(page, ".progress", /^5 frames a point$/);
            assert.strictEqual(seeks(), before);
            // The same by keys.
            await page.locator(".canvas").focus();
            await page.keyboard.press("PageUp");
            await untilText(page, "#cursor-time", /^at /);
            const at = parseFloat((await textOf(page, "#cursor-time")).slice(3));
            await page.keyboard.press("Enter");
            await untilTime(page, at - 0.1, at + 0.1);
            for (let i = 0; i < 3; ++i)
                await page.keyboard.press("+");
            await untilText(page, ".progress", /^$/);
            await page.keyboard.press("0");
            await untilText(page, ".progress", /^5 frames a point$/);
            // What is alive now can be beside it.
            await plot(page, "Simulation.energy");
            await until(page, () => document.querySelectorAll(".chip").length === 2 && [...document.querySelectorAll(".chip .number")].every(({ textContent }) => textContent !== "–"));
        });
    },
    async two_recordings_are_compared(browser) {
        await withMock(browser, { live: false, recordings: TwoOpen }, async (page) => {
            await page.waitForSelector("#play:visible");
            await plot(page, "Recording0.Simulation.energy");
            await untilRead(page);
            assert.deepStrictEqual(await page.locator(".chip").evaluateAll((chips) => chips.map(({ title }) => title)), ["stiff: Simulation.energy", "soft: Simulation.energy"]);
            const over = await overOf(page);
            await page.mouse.click(over.x + 0.5 * over.width, over.y + 20);
            await untilTime(page, 9, 11);
            // Both stand at the time of the click.
            const time = await placeOf(page);
            const numbers = () => page.locator(".chip .number").allTextContents().then((texts) => texts.map(Number));
            await page.mouse.move(0, 0);
            await until(page, (least) => document.querySelectorAll(".chip .number").length >= least, 2);
            const expected = Math.sin(3 * time);
            const [stiff, soft] = await numbers();
            assert.ok(Math.abs(stiff + 1 - 0.1 * expected) < 0.01 && Math.abs(soft + 1 - 0.2 * expected) < 0.02, stiff + " " + soft + " at " + time);
            await page.click("text=Difference");
            await untilText(page, ".legend .chip:nth-child(3)", /^difference-?0/);
            const [, , difference] = await numbers();
            assert.ok(Math.abs(difference - (stiff - soft)) < 1e-5);
            await page.click("text=Difference");
            await page.uncheck("#compares-all");
            await page.selectOption("#plot-target", "new");
            await page.click("#details .current button");
            assert.strictEqual(await page.locator(".plot").nth(1).locator(".chip").count(), 1);
            await goTo(page, "Recording1.Simulation.bodies.position");
            await page.check("#compares-all");
            await page.focus("#elements");
            await page.keyboard.press("ArrowDown");
            await page.keyboard.press("Enter");
            await untilText(page, ".plot:nth-child(3)", /stiffSimulation\.bodies\.position\[1\]\.x.*softSimulation\.bodies\.position\[1\]\.x/);
        });
    },
    async particles_of_two_recordings_stand_side_by_side(browser) {
        await withMock(browser, { recordings: Two.map((recording, i) => ({ ...recording, open: true, bodies: 300 - 100 * i })) }, async (page) => {
            await running(page);
            // Of the run alone there is no other.
            await untilText(page, "#particles-legend", /^300 of 300$/);
            assert.strictEqual(await page.isVisible("#side-by-side"), false);
            await page.waitForSelector("#positions option[value='Recording0.Simulation.bodies.position']", { state: "attached" });
            await page.selectOption("#positions", "Recording0.Simulation.bodies.position");
            await page.click("#side-by-side");
            await untilText(page, "#other-particles-legend", /^200 of 200$/);
            assert.deepStrictEqual(await page.locator(".caption").allTextContents(), ["stiff", "soft"]);
            // One scale of colours for both.
            await page.selectOption("#colors", { label: "speed" });
            for (const [legend, count] of [["#particles-legend", 300], ["#other-particles-legend", 200]])
                await untilText(page, legend, new RegExp("^" + count + " of " + count + "; speed 0\\.1 to 40$"));
            const shot = async (canvas) => (await page.locator(canvas).screenshot()).toString("base64");
            const before = [await shot("#particles-canvas"), await shot("#other-particles-canvas")];
            assert.ok(await coloursOf(page, "#other-particles-canvas") > 20);
            await picture(page, "recordings-side-by-side");
            await page.focus("#other-particles-canvas");
            await page.keyboard.press("ArrowLeft");
            assert.notStrictEqual(await shot("#particles-canvas"), before[0]);
            assert.notStrictEqual(await shot("#other-particles-canvas"), before[1]);
            await page.click("#side-by-side");
            assert.strictEqual(await page.locator("#other-particles-canvas").count(), 0);
            await page.click("#side-by-side");
            await untilText(page, "#other-particles-legend", /^200 of 200; speed/);
            await page.click("#recordings li:nth-child(2) button");
            await until(page, () => document.querySelector("#other-particles-canvas") === null);
            assert.strictEqual(await page.isVisible("#side-by-side"), false);
        });
    },
    async a_recording_that_grows_is_followed(browser) {
        await withMock(browser, { live: false, recordings: [{ name: "growing", frames: 300, open: true, closed: false, growth: 60 }] }, async (page, mock) => {
            await untilText(page, "#recordings", /frames, being written/);
            await plot(page, "Recording0.Simulation.energy");
            await untilRead(page);
            const end = () => page.locator("#track-time").getAttribute("max").then(Number);
            const before = await end();
            await until(page, (least) => Number(document.querySelector("#track-time").max) > least + 0.9, before);
            await until(page, () => document.querySelector(".progress").textContent === "");
            assert.ok(mock.requests.filter(({ uri }) => uri === "Track.Series").length >= 2);
        });
    },
    async recordings_alone_are_no_simulation_that_has_lost_its_clock(browser) {
        await withMock(browser, { live: false, statistics: false, recordings: [TwoOpen[0]] }, async (page) => {
            await untilText(page, "#state", /^Recording$/);
            await untilText(page, "#detail", /^paused, process 4711$/);
            await untilText(page, "#time", /^0\.000 s$/);
            for (const gone of ["#pause", "#fps", "#drift", "#timing"])
                assert.strictEqual(await page.isVisible(gone), false, gone);
            await untilText(page, "#particles-legend", /^300 of 300$/);
            await page.click("#play");
            await untilText(page, "#detail", /^plays at 1 s\/s/);
            await until(page, () => parseInt(document.querySelector("#frame").textContent) > 5);
        });
    },
    async slow_tasks_and_streams_that_lose_frames_are_listed(browser) {
        const streams = [{ name: "tcp", port: 4000, numFrames: 50, numLeftOut: 3, numClients: 1 }, { name: "ws", port: 4001, numFrames: 50, numLeftOut: 0, numClients: 2 }];
        await withMock(browser, { streams }, async (page) => {
            await untilText(page, "#times li:nth-child(1)", /^Integrate4\.200[0-9.]+ %$/);
            assert.deepStrictEqual(await page.locator("#times .name").allTextContents(), ["Integrate", "Collide", "Contacts", "Tree", "Write frames", "Emit"]);
            assert.deepStrictEqual(await page.locator("#streams td:first-child").allTextContents(), ["tcp:4000", "ws:4001"]);
            assert.deepStrictEqual(await page.locator("#streams .slow").allTextContents(), ["3"]);
        });
        await withMock(browser, { statistics: false }, async (page) => {
            await untilText(page, "#times-hint", /zel run --statistics\.$/);
            assert.strictEqual(await page.isVisible("#streams"), false);
        });
    },
    async recordings_fit_wide_and_narrow_screens(browser) {
        const recordings = [...TwoOpen, { name: "a run whose name is much longer than any screen is wide, and goes on", frames: 99 }];
        const surplus = (page) => page.evaluate(() => [document.documentElement, ...document.querySelectorAll("#status, #tracks, .panel")]
            .filter((element) => element.scrollWidth > element.clientWidth + 1).map(({ id }) => id));
        for (const live of [true, false])
            await withMock(browser, { live, recordings }, async (page) => {
                await page.waitForSelector("#play:visible");
                await plot(page, "Recording0.Simulation.energy");
                await untilRead(page);
                assert.deepStrictEqual(await surplus(page), []);
                await picture(page, live ? "recordings-wide" : "recordings-alone");
                await page.setViewportSize(Narrow);
                await page.click("#range-start");
                for (const tab of ["Objects", "Details", "Plots", "Particles", "Log", "Time"]) {
                    await page.getByRole("tab", { name: tab }).click();
                    assert.deepStrictEqual(await surplus(page), [], tab);
                }
                await page.getByRole("tab", { name: "Plots" }).click();
                assert.ok((await page.locator(".u-over").boundingBox()).height > 60);
                await picture(page, live ? "recordings-narrow" : "recordings-alone-narrow");
            });
    },
    async hostile_recordings_are_told_and_survived(browser) {
        const text = "<img src=x onerror=alert(1)>";
        const tracks = [null, 3, { id: -1 }, { id: 0, name: text, open: true, path: "Recording0", position: { time: "nan" }, startTime: "inf", error: text, numFrames: -5 },
            { id: 1, name: "stiff", open: true, path: "Recording1", position: { time: 1, frame: text, index: {} }, startTime: 5, endTime: 1, range: 7, rate: "inf" }];
        const handlers = {
            "Track.List": () => ({ tracks }),
            "Track.Control": () => { throw new Error(text); },
            "Track.Series": () => ({ numFrames: 100, framesPerPoint: "x" }),
            "Statistics.List": () => ({ enabled: true, providers: [null, { name: text, path: {}, data: [{ timing: true, accumulated: text, count: 1 }] }] }),
            "Object.Describe": ({ path }) => ({ path, name: "energy", kind: "value", numChildren: 0, value: 3, type: "Real" }),
        };
        await withMock(browser, { recordings: Two, handlers }, async (page, mock) => {
            await untilText(page, "#recordings", /<img.*stiff/);
            await page.click("#play");
            await untilText(page, "#track-error", /<img/);
            await page.focus("#track-time");
            for (const key of ["End", "ArrowLeft", "PageDown"])
                await page.keyboard.press(key);
            await page.fill("#search", "Recording1.x");
            await page.press("#search", "Enter");
            await page.click("#details .current button");
            await page.waitForSelector(".plot");
            const [client] = mock.clients;
            await until(page, () => document.querySelectorAll(".chip").length === 2);
            for (const header of [{ series: 1 }, { series: 1, count: 1e9, first: 0 }, { series: 77, count: 1 }, { series: {}, items: 3 }])
                mock.push(client, "Track.Points", header);
            mock.push(client, "Track.State", { track: { id: 1, position: [] } });
            await untilText(page, ".plot .error", /a series of too many rows/);
            await running(page);
            assert.strictEqual(await page.locator("img").count(), 0);
        });
    },
    async hostile_answers_are_told_and_survived(browser) {
        const update = (items) => ({ watch: 1, sequence: 1, clock: null, items });
        const mock = new Mock({
            handlers: {
                "Object.Complete": () => ({ list: [1, {}, "<img src=x onerror=alert(1)>"] }),
                "Object.Describe": ({ path }) => path !== "" ? { path, kind: "value", numChildren: -3, value: { a: 1 }, children: "many" }
                    : { path: "", kind: "component", numChildren: 3, begin: 0, children: [null, { name: "<b>bold</b>", path: "b", kind: "value", value: "<i>x</i>" }, 7] },
            },
        });
        await mock.start();
        const page = await browser.open(mock.address + "#control=" + mock.port + "&token=secret");
        await running(page);
        await page.waitForSelector(".row:has-text('<b>bold</b>')");
        await page.fill("#search", "x");
        await untilText(page, "#completions", /^<img/);
        await page.click(".row:has-text('<b>bold</b>')");
        await untilText(page, "#details h2", /./);
        const [client] = mock.clients;
        client.socket.send("a line of error");
        client.socket.send(Buffer.alloc(5));
        mock.push(client, "Watch.Update", update([{ item: 99 }]));
        mock.push(client, "Log.Line", { level: 3, time: "x", text: "<script>", dropped: 12 });
        for (const line of [/a line of error/, /unreadable: a message without its pre-header/, /12 lines were left out/])
            await untilText(page, "#log-lines", line);
        mock.standsStill = true;
        await untilText(page, "#state", /^Standing still$/);
        mock.standsStill = false;
        await running(page);
        assert.strictEqual(await page.locator("img, .row b, .row i").count(), 0);
        await mock.stop();
    },
};

async function main() {
    const browser = await Browser.start();
    if (mockCases[name] !== undefined) {
        browser.expected = /WebSocket connection to/; // at its end
        await mockCases[name](browser);
        await browser.close();
        return;
    }
    assert.ok(Object.hasOwn(cases, name), "there is no case " + name);
    const context = { browser, simulation: await Simulation.start() };
    const first = context.simulation;
    const folder = fs.mkdtempSync(path.join(os.tmpdir(), "recordings-"));
    context.withRecordings = (...options) => context.restart("--recordings", folder, ...options);
    context.restart = async (...options) => context.simulation = await Simulation.start(...options);
    const page = await browser.open(first.address);
    await running(page);
    await cases[name](page, context);
    await browser.close();
    await context.simulation.stop();
    if (first !== context.simulation && first.process.exitCode === null)
        await first.stop();
    fs.rmSync(folder, { recursive: true });
}

main().then(() => process.exit(0), (error) => {
    console.error(error);
    process.exit(1);
});

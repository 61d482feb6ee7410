// Drives the page in a browser: pageTest.js CASE BODIES CHROMIUM, where BODIES is the program of bodies.cpp.
// With a fourth argument, pictures of the page are written into that folder.
"use strict";
const assert = require("node:assert");
const fs = require("fs");
const os = require("os");
const path = require("path");
const { Mock } = require("./mock.js");
const { Simulation, Browser, Narrow, until, untilText, textOf, numberIn, running, goTo, plot, picture, coloursOf, curves } = require("./pageTools.js");
const recordings = require("./recordingCases.js");

// Cases with the true simulation.

const cases = {
    ...recordings.cases,
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

const mockCases = {
    ...recordings.mockCases,
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
    const [name] = process.argv.slice(2);
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

// Cases of pageTest.js: recordings beside a run, and alone; what takes the time.
"use strict";
const assert = require("node:assert");
const { Narrow, until, untilText, untilEqual, textOf, numberIn, running, goTo, plot, picture, coloursOf, curves, withMock } = require("./pageTools.js");

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
/// Until there are plots, and all that they show is there: nothing is to be seen at first, and nothing can be sought by a click.
function untilRead(page) {
    return until(page, () => {
        const numbers = [...document.querySelectorAll(".chip .number")];
        return numbers.length > 0 && numbers.every(({ textContent }) => textContent !== "" && textContent !== "–") &&
            [...document.querySelectorAll(".progress")].every(({ textContent }) => !textContent.startsWith("reading"));
    });
}
const Two = [{ name: "stiff", frames: 1200, amplitude: 0.1 }, { name: "soft", frames: 900, amplitude: 0.2 }];
const TwoOpen = Two.map((recording) => ({ ...recording, open: true }));

// With a true simulation.

const cases = {
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
};

// With a server that does what the case wants.

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
            await untilEqual(() => mock.tracks.map(({ range }) => [range?.start.toFixed(1), range?.end.toFixed(1)]), [["1.0", "2.0"], ["1.0", "2.0"]]);
            // From the end on, it begins again; without anything focused, space plays.
            await page.evaluate(() => document.activeElement.blur());
            mock.standsStill = true;
            await page.keyboard.press(" ");
            await untilText(page, "#play", /^Pause$/);
            await untilTime(page, 0.9, 1.1);
            mock.standsStill = false;
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
            await page.mouse.move(0, 0);
            await until(page, (sine) => {
                const [stiff, soft] = [...document.querySelectorAll(".chip .number")].map(({ textContent }) => parseFloat(textContent));
                return Math.abs(stiff + 1 - 0.1 * sine) < 1e-3 && Math.abs(soft + 1 - 0.2 * sine) < 1e-3;
            }, Math.sin(3 * time));
            await page.click("text=Difference");
            await untilText(page, ".legend .chip:nth-child(3)", /^difference-?0/);
            const [stiff, soft, difference] = await page.locator(".chip .number").allTextContents().then((texts) => texts.map(Number));
            assert.ok(Math.abs(difference - (stiff - soft)) < 1e-5, stiff + " " + soft + " " + difference);
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
    async recordings_wait_while_there_is_no_connection(browser) {
        await withMock(browser, { live: false, recordings: TwoOpen }, async (page, mock) => {
            await untilText(page, "#state", /^Recording$/);
            await page.focus("#track-time");
            await page.keyboard.press("End");
            await untilText(page, "#track-position", /frame 1199$/);
            const disabled = () => page.locator("#tracks").evaluate((bar) => [...bar.querySelectorAll("button, input")].map((control) => control.disabled));
            assert.deepStrictEqual([...new Set(await disabled())], [false]);
            await mock.hangUp();
            await untilText(page, "#state", /^Connection lost$/);
            await until(page, () => document.querySelector("#play").disabled);
            assert.deepStrictEqual([...new Set(await disabled())], [true]);
            assert.strictEqual(await page.getAttribute("#play", "title"), "There is no connection.");
            for (const gone of ["#pause", "#fps", "#drift"])
                assert.strictEqual(await page.isVisible(gone), false, gone);
            // Who it is may be long to tell.
            mock.options.handlers = { "System.Info": () => null };
            await mock.listen(mock.port);
            await untilText(page, "#state", /^Connected$/);
            mock.options.handlers = {};
            await mock.hangUp();
            await untilText(page, "#state", /^Connection lost$/);
            await mock.listen(mock.port);
            await untilText(page, "#state", /^Recording$/);
            await until(page, () => document.activeElement.id === "track-time" && !document.querySelector("#play").disabled);
            assert.strictEqual(await page.getAttribute("#play", "title"), "Play or pause the recordings");
            await page.keyboard.press("Home");
            await untilText(page, "#track-position", /frame 0$/);
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
};

module.exports = { cases, mockCases };

// Checks the page of `live --html` in headless Chromium, in narrow and wide windows, light and dark.
//
//   node check.mjs FOLDER-WITH-node_modules COMMAND
//
// The screenshots are written to the folder.

import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";
import { pathToFileURL } from "node:url";

const [modules, command] = process.argv.slice(2).map((path) => resolve(path));
const { chromium } = createRequire(join(modules, "package.json"))("playwright-core");
const SEGMENT = 65536, IN_CONTAINER = 16, CONTAINERS = 60;

// Two backups: the second one is shorter, and shares from none to all segments of a container with the first one. Of
// its segments one is not stored.
function writeStore(folder) {
    const [first, second] = [CONTAINERS, CONTAINERS - 8].map((n) => Buffer.alloc(n * IN_CONTAINER * SEGMENT));
    for (const [backup, seed] of [[first, 1], [second, 2]]) {
        for (let i = 0; i < backup.length / SEGMENT; ++i) {
            const changed = i % IN_CONTAINER < Math.floor(i / IN_CONTAINER) % (IN_CONTAINER + 1);
            backup.fill(`${changed ? seed : 0} ${i} `, i * SEGMENT, (i + 1) * SEGMENT);
        }
    }
    for (const [name, content] of Object.entries({ first, second })) {
        const options = ["--segment-size", SEGMENT, "--container-size", IN_CONTAINER * SEGMENT,
            "--first-container", 4294967000, "--no-progress"];
        writeFileSync(join(folder, name), content);
        execFileSync(command, ["build", name, "-o", `${name}.do`, ...options], { cwd: folder });
        execFileSync(command, ["segments", "build", name, "-o", `${name}.so`, ...options], { cwd: folder });
    }
    const stored = readFileSync(join(folder, "second.so")), size = stored.length * SEGMENT / second.length;
    const lost = IN_CONTAINER * IN_CONTAINER * size; // the first of a container that shares none
    writeFileSync(join(folder, "second.so"), Buffer.concat([stored.subarray(0, lost), stored.subarray(lost + size)]));
}

function writePage(folder, ...inputs) {
    const done = spawnSync(command, ["live", "--json", "--html", "page.html", ...inputs],
        { cwd: folder, encoding: "utf8", maxBuffer: 1 << 28 });
    return JSON.parse(done.stdout.trim().split("\n").at(-1)).total;
}

// The ratio of the luminances of two colours "rgb(r, g, b)".
function contrast(...colours) {
    const [dark, light] = colours.map((colour) => colour.match(/\d+/g).slice(0, 3).map((part) => part / 255)
        .map((part) => (part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4))
        .reduce((sum, part, i) => sum + part * [0.2126, 0.7152, 0.0722][i], 0)).sort((a, b) => a - b);
    return (light + 0.05) / (dark + 0.05);
}

// What a reader sees; runs in the browser.
function look() {
    const style = (element) => getComputedStyle(element);
    const all = [...document.body.querySelectorAll("*")];
    return {
        text: document.body.innerText,
        figures: Object.fromEntries([...document.querySelectorAll("dl div")].map((figure) =>
            [...figure.children].map((part) => part.innerText))),
        overflow: all.filter((element) => element.getBoundingClientRect().right > innerWidth + 0.5)
            .map((element) => element.outerHTML.slice(0, 80)),
        tooWide: document.documentElement.scrollWidth - innerWidth,
        cut: all.filter((element) => element.scrollWidth > element.clientWidth + 1 &&
            style(element).overflow !== "visible").length,
        colours: [...new Set(all.filter((element) => element.children.length === 0 && element.innerText?.trim())
            .map((element) => style(element).color))],
        back: style(document.body).backgroundColor,
        smallest: Math.min(...all.filter((element) => element.innerText)
            .map((element) => parseFloat(style(element).fontSize))),
        columns: new Set([...document.querySelectorAll("section")].map((section) => section.offsetLeft)).size,
        silent: [...document.querySelectorAll("svg, img, [role=img]")].filter((picture) =>
            picture.ariaHidden !== "true" && !picture.ariaLabel && !picture.querySelector?.("title")).length,
        unnamed: [...document.querySelectorAll("table")].filter((table) =>
            !table.caption?.innerText && !table.ariaLabel && !table.getAttribute("aria-labelledby")).length,
    };
}

async function check(context, folder, width, colorScheme, total, inputs) {
    const page = await context.newPage();
    const requests = [], complaints = [];
    page.on("request", (request) => requests.push(request.url()));
    page.on("console", (message) => complaints.push(message.text()));
    page.on("pageerror", (error) => complaints.push(String(error)));
    await page.setViewportSize({ width, height: 900 });
    await page.emulateMedia({ colorScheme });
    const address = String(pathToFileURL(join(folder, "page.html")));
    await page.goto(address);
    const seen = await page.evaluate(look);
    const name = `${inputs}-${width}-${colorScheme}`;
    await page.screenshot({ path: join(modules, `${name}.png`), fullPage: true });
    const loading = await page.locator("script, link, iframe, object").count();
    assert.deepEqual([requests, complaints, loading], [[address], [], 0], name);
    assert.deepEqual([seen.overflow, seen.tooWide, seen.cut, seen.silent, seen.unnamed], [[], 0, 0, 0, 0], name);
    assert.equal(seen.columns, width < 800 ? 1 : 2, name);
    assert(seen.smallest >= 12, `${name}: the smallest text has ${seen.smallest} px`);
    assert(seen.colours.every((colour) => contrast(colour, seen.back) >= 4.5),
        `${name}: ${seen.colours} on ${seen.back}`);
    assert.equal(contrast(seen.back, "rgb(0, 0, 0)") < 3, colorScheme === "dark", `${name}: ${seen.back}`);
    const missing = seen.text.match(/missing: (\d+) segment/)?.[1];
    assert.deepEqual([seen.figures.records, seen.figures.containers, seen.figures["dead containers"], missing],
        [total.records, total.containers, total.dead, total.missing_segments], name);
    await page.close();
}

const folder = mkdtempSync(join(tmpdir(), "crrecord-page-"));
const context = await chromium.launchPersistentContext(join(folder, "browser"), {
    executablePath: "/usr/bin/chromium",
    chromiumSandbox: false,
    javaScriptEnabled: false, // of the page; `look` runs nevertheless
    args: ["--disable-gpu", "--disable-quic"],
});
try {
    writeStore(folder);
    const inputs = { both: ["second.do", "first.so", "second.so"], needed: ["first.do", "second.do"] };
    for (const [name, files] of Object.entries(inputs)) {
        const total = writePage(folder, ...files);
        for (const width of [400, 1400]) {
            for (const scheme of ["light", "dark"]) {
                await check(context, folder, width, scheme, total, name);
            }
        }
    }
} finally {
    await context.close();
    rmSync(folder, { recursive: true });
}

// Looks at the exporter's page in headless Chromium and prints what it saw, as JSON.
//
//     node page_driver.js STEPS      STEPS: a JSON text, [[name, argument, ...], ...]
//
// A step that returns something adds it to "seen". "errors" are console errors, exceptions, failed
// requests and requests to other hosts: there should be none.
"use strict";

const { chromium } = require("playwright-core");

const BASE = "http://127.0.0.1:9815";
const seen = [];
const errors = [];
let browser;
let page;

const steps = {
  // Opens the page anew: {scheme, width, height, hash}.
  async open({ scheme = "light", width = 1280, height = 900, hash = "" }) {
    await page?.context().close();
    const context = await browser.newContext({ colorScheme: scheme, viewport: { width, height } });
    page = await context.newPage();
    page.on("console", (message) => message.type() === "error" && errors.push(message.text()));
    page.on("pageerror", (error) => errors.push(String(error)));
    page.on("requestfailed", (request) => errors.push(`failed: ${request.url()}`));
    page.on("request", (request) => request.url().startsWith(`${BASE}/`) || errors.push(`foreign: ${request.url()}`));
    await page.goto(`${BASE}/${hash}`);
  },

  // Answers with an error status from here on are what the test is about.
  async forgiveErrors() {
    errors.length = 0;
    page.removeAllListeners("console");
    page.removeAllListeners("requestfailed");
  },

  async waitFor(selector, text) {
    await page.locator(selector).filter({ hasText: text }).first().waitFor();
  },

  // Until an element's text is another than it is now; both are seen.
  async waitForChange(selector) {
    const before = await page.locator(selector).innerText();
    const deadline = Date.now() + 30000;
    let after = before;
    while (after === before && Date.now() < deadline) {
      await page.waitForTimeout(100);
      after = await page.locator(selector).innerText();
    }
    seen.push([before, after]);
  },

  async click(selector) {
    await page.locator(selector).first().click();
  },

  async fill(selector, text) {
    await page.locator(selector).fill(text);
  },

  async texts(selector) {
    seen.push(await page.locator(selector).evaluateAll((found) => found.filter((each) => each.checkVisibility()).map((each) => each.innerText)));
  },

  // Each row of the list as a list of cell texts.
  async rows() {
    const rows = (found) =>
      found.filter((row) => !row.hidden).map((row) => [...row.cells].map((cell) => cell.innerText));
    seen.push(await page.locator("#tasks tr").evaluateAll(rows));
  },

  // What the page had its values from.
  async api() {
    seen.push(await page.evaluate(async () => (await fetch("/api/tasks?max-age=86400")).json()));
  },

  // For each plot its title and the number of pixels in the colours of its lines.
  async plots() {
    const count = (boxes) =>
      boxes.map((box) => {
        const canvas = box.querySelector("canvas");
        const style = getComputedStyle(document.documentElement);
        const colours = ["--plot-one", "--plot-two"].map((name) =>
          style.getPropertyValue(name).match(/[0-9a-f]{2}/gi).map((hex) => parseInt(hex, 16)),
        );
        const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
        let pixels = 0;
        for (let at = 0; at < data.length; at += 4) {
          const isNear = (rgb) => rgb.every((value, part) => Math.abs(data[at + part] - value) < 12);
          pixels += data[at + 3] > 100 && colours.some(isNear) ? 1 : 0;
        }
        return [box.querySelector("h3").firstChild.textContent, pixels];
      });
    seen.push(await page.locator(".plot").evaluateAll(count));
  },

  // The different texts that the mouse brings up on its way over the first plot.
  async sweep() {
    const box = await page.locator(".u-over").first().boundingBox();
    const texts = new Set();
    for (let x = 1; x < box.width; x += 6) {
      await page.mouse.move(box.x + x, box.y + box.height / 2);
      texts.add(await page.locator("#cursor").innerText());
    }
    seen.push([...texts]);
  },

  async background() {
    seen.push(await page.evaluate(() => getComputedStyle(document.body).backgroundColor));
  },

  // Pixels by which the page is wider than the window.
  async overflow() {
    seen.push(await page.evaluate(() => document.documentElement.scrollWidth - innerWidth));
  },

  async screenshot(path) {
    await page.screenshot({ path, fullPage: true });
  },
};

async function main() {
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM || "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-gpu"],
  });
  for (const [name, ...given] of JSON.parse(process.argv[2])) {
    await steps[name](...given);
  }
  await browser.close();
  console.log(JSON.stringify({ seen, errors }));
}

main().catch((error) => {
  console.error(error, JSON.stringify({ seen, errors }));
  process.exit(1);
});

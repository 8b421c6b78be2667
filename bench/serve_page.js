// Opens the page of kym serve in Debian's Chromium and prints, for each
// opening, how long the page took by its own clock from the start of the
// navigation until it was usable: the first Start button of the chosen
// department in the document. (Timing it from this script would add the
// browser's remote-control round trips, which a user does not have.)
//   node bench/serve_page.js ADDRESS [TIMES]
// Uses the Playwright of tests/browser (npm ci there first).
const path = require('path');
const { chromium } = require(path.join(__dirname, '../tests/browser/node_modules/@playwright/test'));

(async () => {
  const [address, times = '7'] = process.argv.slice(2);
  const browser = await chromium.launch({ executablePath: process.env.KYM_CHROMIUM || '/usr/bin/chromium' });
  const results = [];
  for (let round = 0; round < Number(times); ++round) {
    const context = await browser.newContext();
    await context.addInitScript(() => {
      new MutationObserver((changes, observer) => {
        if (!document.querySelector('.app button')) return;
        window.kymUsable = performance.now();
        observer.disconnect();
      }).observe(document, { childList: true, subtree: true });
    });
    const page = await context.newPage();
    await page.goto(address);
    await page.waitForFunction(() => window.kymUsable !== undefined);
    results.push(Math.round(await page.evaluate(() => window.kymUsable)));
    await context.close();
  }
  await browser.close();
  console.log(results.join(' '));
})();

// Opens the page of kym serve in Debian's Chromium and prints, in
// milliseconds, how long each opening took until the page was usable: the
// applications of the chosen department shown with their Start buttons.
//   node bench/serve_page.js ADDRESS [TIMES]
// Uses the Playwright of tests/browser (npm ci there first).
const path = require('path');
const { chromium } = require(path.join(__dirname, '../tests/browser/node_modules/@playwright/test'));

(async () => {
  const [address, times = '7'] = process.argv.slice(2);
  const browser = await chromium.launch({ executablePath: process.env.KYM_CHROMIUM || '/usr/bin/chromium' });
  const results = [];
  for (let round = 0; round < Number(times); ++round) {
    const page = await (await browser.newContext()).newPage();
    const started = Date.now();
    await page.goto(address);
    await page.getByRole('button', { name: /^Start / }).first().waitFor();
    results.push(Date.now() - started);
    await page.context().close();
  }
  await browser.close();
  console.log(results.join(' '));
})();

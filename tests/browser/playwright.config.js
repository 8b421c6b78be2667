// Debian's Chromium, headless; no browser is downloaded.
const { defineConfig } = require('@playwright/test');

module.exports = defineConfig({
  testDir: '.',
  testMatch: '*.test.js',
  timeout: 60000,
  workers: 2,
  reporter: 'list',
  outputDir: process.env.KYM_BROWSER_OUTPUT || '../../build/browser-results',
  use: {
    browserName: 'chromium',
    headless: true,
    launchOptions: { executablePath: process.env.KYM_CHROMIUM || '/usr/bin/chromium' },
  },
});

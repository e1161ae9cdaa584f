// The editor end to end in Debian's chromium, headless; no browser is
// downloaded. BITMAPFILTER names the program under test.
const { defineConfig } = require('@playwright/test');

module.exports = defineConfig({
  testDir: '.',
  testMatch: '*.spec.js',
  timeout: 30_000,
  workers: 1,
  reporter: 'list',
  outputDir: process.env.BF_WEB_OUTPUT || 'test-results',
  use: {
    browserName: 'chromium',
    headless: true,
    launchOptions: {
      executablePath: process.env.BF_CHROMIUM || '/usr/bin/chromium',
      args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
             '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    },
  },
});

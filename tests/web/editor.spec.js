// The browser editor against the real program: the page, the token and
// Host checks, and files saved as the command line writes them.
const { test, expect } = require('@playwright/test');
const { spawn, execFileSync } = require('node:child_process');
const fs = require('node:fs');
const http = require('node:http');
const os = require('node:os');
const path = require('node:path');

const program = process.env.BITMAPFILTER || path.resolve(__dirname, '../../build/bin/bitmapfilter');
const sample = path.resolve(__dirname, '../../examples/sample.png');

// Starts `bitmapfilter edit` on a free port and reads the address it prints.
function startEditor(args) {
  const child = spawn(program, ['edit', ...args, '--port', '0', '--no-browser'],
                      { stdio: ['ignore', 'pipe', 'inherit'] });
  return new Promise((resolve, reject) => {
    let printed = '';
    child.stdout.on('data', (chunk) => {
      printed += chunk;
      const found = printed.match(/editor at (http:\/\/127\.0\.0\.1:(\d+))\/\?token=([0-9a-f]+)/);
      if (found) resolve({ child, origin: found[1], port: Number(found[2]), token: found[3] });
    });
    child.on('exit', (code) => reject(new Error(`the editor ended with ${code}: ${printed}`)));
  });
}

// A plain request with the headers given, outside the browser.
function get(port, pathname, headers) {
  return new Promise((resolve, reject) => {
    http.get({ host: '127.0.0.1', port, path: pathname, headers }, (response) => {
      response.resume();
      response.on('end', () => resolve(response.statusCode));
    }).on('error', reject);
  });
}

let editor;
let folder;
test.beforeAll(async () => {
  folder = fs.mkdtempSync(path.join(os.tmpdir(), 'bf-editor-'));
  editor = await startEditor([sample]);
});
test.afterAll(async () => {
  if (editor) {
    const ended = new Promise((resolve) => editor.child.on('exit', resolve));
    editor.child.kill('SIGINT');  // Ctrl-C
    expect(await ended).toBe(0);
  }
  fs.rmSync(folder, { recursive: true, force: true });
});

async function openEditor(page) {
  await page.goto(`${editor.origin}/?token=${editor.token}`);
  await expect(page.locator('body')).toHaveAttribute('data-ready', 'true');
}

// The canvas's pixels, to compare one state of the image with another.
function canvasPixels(page) {
  return page.evaluate(() => {
    const canvas = document.getElementById('canvas');
    const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
    let sum = 0;
    for (let i = 0; i < data.length; ++i) sum = (sum * 31 + data[i]) >>> 0;
    return { width: canvas.width, height: canvas.height, sum };
  });
}

test('the sample opens from the command line and from the file picker', async ({ page }) => {
  await openEditor(page);
  await expect(page.locator('#status')).toContainText('sample.png');
  await expect(page.locator('#status')).toContainText('u8');
  const shown = await canvasPixels(page);
  const state = await page.evaluate(async () => (await fetch('/api/state')).json());
  expect([shown.width, shown.height]).toEqual([state.image.width, state.image.height]);

  const copy = path.join(folder, 'picked.png');
  fs.copyFileSync(sample, copy);
  await page.locator('#open-file').setInputFiles(copy);
  // The whole description, not the "Opening" line before it.
  await expect(page.locator('#status')).toContainText(/picked\.png — \d+ × \d+/);
  expect((await canvasPixels(page)).sum).toBe(shown.sum);

  const bad = path.join(folder, 'bad.png');
  fs.writeFileSync(bad, 'not a picture');
  await page.locator('#open-file').setInputFiles(bad);
  await expect(page.locator('#status')).toContainText('Cannot open bad.png');
  await expect(page.locator('#status')).toHaveClass(/error/);
});

test('requests without the token or from another host name are refused', async () => {
  const host = `127.0.0.1:${editor.port}`;
  expect(await get(editor.port, '/api/state', { Host: host })).toBe(403);
  expect(await get(editor.port, '/', { Host: host })).toBe(403);
  expect(await get(editor.port, '/api/state?token=0123', { Host: host })).toBe(403);
  expect(await get(editor.port, `/api/state?token=${editor.token}`, { Host: host })).toBe(200);
  expect(await get(editor.port, `/api/state?token=${editor.token}`,
                   { Host: `localhost:${editor.port}` })).toBe(403);
  expect(await get(editor.port, `/api/state?token=${editor.token}`,
                   { Host: `attacker.example:${editor.port}` })).toBe(403);
});

test('saving writes the file the command line writes, and undo restores the pixels', async ({ page }) => {
  await openEditor(page);
  const before = await canvasPixels(page);
  await page.locator('#filters-button').click();
  await page.locator('button[data-filter="invert"]').click();
  await expect(page.locator('#undo')).toBeEnabled();
  const inverted = await canvasPixels(page);
  expect(inverted.sum).not.toBe(before.sum);

  const saved = path.join(folder, 'inverted.png');
  await page.locator('#save').click();
  await page.locator('#save-path').fill(saved);
  await page.locator('#save-confirm').click();
  await expect(page.locator('#status')).toContainText('Saved');
  const expected = path.join(folder, 'expected.png');
  execFileSync(program, ['apply', 'invert', sample, expected, '--quiet']);
  expect(fs.readFileSync(saved).equals(fs.readFileSync(expected))).toBe(true);

  await page.locator('#undo').click();
  await expect(page.locator('#redo')).toBeEnabled();
  expect((await canvasPixels(page)).sum).toBe(before.sum);
  await page.keyboard.press('Control+Shift+Z');
  await expect(page.locator('#redo')).toBeDisabled();
  expect((await canvasPixels(page)).sum).toBe(inverted.sum);
  await page.locator('#undo').click();
  await expect(page.locator('#undo')).toBeDisabled();
});

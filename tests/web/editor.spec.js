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
function startEditor(args, config) {
  const child = spawn(program, ['edit', ...args, '--port', '0', '--no-browser'],
                      { stdio: ['ignore', 'pipe', 'inherit'],
                        env: { ...process.env, XDG_CONFIG_HOME: config } });
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
  editor = await startEditor([sample], path.join(folder, 'config'));
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

// Opens a filter's dialog from the menu with its preview shown or not.
async function openDialog(page, key, shown = true) {
  await page.locator('#filters-button').click();
  await page.locator(`button[data-filter="${key}"]`).click();
  const dialog = page.locator('#filter-dialog');
  await expect(dialog).toBeVisible();
  await expect(dialog).toHaveAttribute('data-filter', key);
  const preview = dialog.locator('input[name="preview"]');
  if ((await preview.isChecked()) !== shown) {
    await preview.setChecked(shown);
    await expect(dialog).toHaveAttribute('data-changes', '1');
  }
  return dialog;
}

function revision(locator) {
  return locator.evaluate((element) => Number(element.dataset.revision || 0));
}

async function setField(dialog, name, value) {
  const field = dialog.locator(`input[type="number"][name="${name}"]`);
  const changes = Number(await dialog.getAttribute('data-changes'));
  await field.fill(String(value));
  await field.dispatchEvent('change');
  await expect(dialog).toHaveAttribute('data-changes', String(changes + 1));
}

async function appliedCount(page) {
  return Number((await page.locator('body').getAttribute('data-applied')) || 0);
}

// The same settings as `--set` gives them, applied through the dialog: both
// previews follow the change, and the file saved is the command line's.
for (const [key, name, value] of [['gamma', 'gamma', 2.2], ['gauss', 'radius_x', 6], ['whirl', 'angle', 240]]) {
  test(`${key}: the dialog previews a change and applies what the command line applies`, async ({ page }) => {
    await openEditor(page);
    const dialog = await openDialog(page, key);
    const area = dialog.locator('canvas.preview');
    await expect.poll(() => revision(area)).toBeGreaterThan(0);
    const previewBefore = await revision(area);
    const viewBefore = await revision(page.locator('#canvas'));
    await setField(dialog, name, value);
    await expect.poll(() => revision(area)).toBeGreaterThan(previewBefore);
    await expect.poll(() => revision(page.locator('#canvas'))).toBeGreaterThan(viewBefore);
    await expect(page.locator('#canvas')).toHaveAttribute('data-shows', 'preview');

    const applied = await appliedCount(page);
    await dialog.locator('#dialog-ok').click();
    await expect.poll(() => appliedCount(page)).toBe(applied + 1);
    await expect(page.locator('#status')).not.toHaveClass(/error/);
    const saved = path.join(folder, `${key}.png`);
    const response = await page.evaluate(async (file) => (await fetch('/api/save', {
      method: 'POST', body: JSON.stringify({ path: file }) })).status, saved);
    expect(response).toBe(200);
    const expected = path.join(folder, `${key}-cli.png`);
    execFileSync(program, ['apply', key, sample, expected, '--set', `${name}=${value}`, '--quiet']);
    expect(fs.readFileSync(saved).equals(fs.readFileSync(expected))).toBe(true);
    await page.locator('#undo').click();
    await expect(page.locator('#undo')).toBeDisabled();
  });
}

test('Cancel and Escape leave the image as it was; Reset gives the defaults', async ({ page }) => {
  await openEditor(page);
  const before = await canvasPixels(page);
  let dialog = await openDialog(page, 'hsl');
  await setField(dialog, 'hue', 120);
  await dialog.locator('#dialog-cancel').click();
  await expect(dialog).toBeHidden();
  await expect(page.locator('#canvas')).toHaveAttribute('data-shows', 'image');
  expect((await canvasPixels(page)).sum).toBe(before.sum);
  await expect(page.locator('#undo')).toBeDisabled();

  dialog = await openDialog(page, 'hsl');
  await setField(dialog, 'hue', 60);
  await dialog.locator('#dialog-reset').click();
  await expect(dialog.locator('input[type="number"][name="hue"]')).toHaveValue('0');
  await page.keyboard.press('Escape');
  await expect(dialog).toBeHidden();
  await expect(page.locator('#undo')).toBeDisabled();
});

// A picture large enough that a long blur is still running when Stop comes.
function writeLargePpm(file, width, height) {
  const header = Buffer.from(`P6\n${width} ${height}\n255\n`);
  const pixels = Buffer.alloc(width * height * 3);
  let seed = 12345;
  for (let i = 0; i < pixels.length; ++i) {
    seed = (seed * 1103515245 + 12345) >>> 0;
    pixels[i] = seed >>> 24;
  }
  fs.writeFileSync(file, Buffer.concat([header, pixels]));
}

test('Stop during a long filter leaves the image as it was, with no undo step', async ({ page }) => {
  test.setTimeout(180_000);
  await openEditor(page);
  const large = path.join(folder, 'large.ppm');
  writeLargePpm(large, 3000, 2000);
  await page.locator('#open-file').setInputFiles(large);
  await expect(page.locator('#status')).toContainText(/large\.ppm — \d+ × \d+/);
  const before = await canvasPixels(page);
  // With the preview shown, closing only waits for a view run that is done.
  const dialog = await openDialog(page, 'motionblur');
  await setField(dialog, 'length', 100);
  await expect(page.locator('#canvas')).toHaveAttribute('data-shows', 'preview', { timeout: 60_000 });
  let seen = -1;
  await expect.poll(async () => {
    const now = await revision(page.locator('#canvas'));
    const settled = now === seen;
    seen = now;
    return settled;
  }, { timeout: 60_000, intervals: [1500] }).toBe(true);
  const applied = await appliedCount(page);
  await dialog.locator('#dialog-ok').click();
  await expect(page.locator('#progress')).toBeVisible({ timeout: 30_000 });
  await page.locator('#stop').click();
  await expect.poll(() => appliedCount(page), { timeout: 60_000 }).toBe(applied + 1);
  await expect(page.locator('#status')).toContainText('stopped');
  expect((await canvasPixels(page)).sum).toBe(before.sum);
  await expect(page.locator('#undo')).toBeDisabled();
});

// Drives Debian's chromium against the real server's demo page: two files chosen and posted
// through the form are shown as "SUCCESS" and land on disk; a failing upload shows its error
// text; the drop area's upload reports its result the same way. A screenshot goes to
// KESTRIN_ARTIFACTS. The server binary comes from KESTRIN_SERVER or the first argument.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { chromium } from 'playwright-core';

const serverBinary = process.env.KESTRIN_SERVER || process.argv[2];
const artifacts = resolve(process.env.KESTRIN_ARTIFACTS || 'artifacts');
const chromiumArgs = [
  '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
];
const green = 'rgb(26, 127, 55)';
const red = 'rgb(198, 40, 40)';

// Starts a server and adds its process to `children` at once, so it is stopped even if it never
// says where it listens. Its log is kept for the test to read and still shown as it comes.
function startServer(children, directory, flags = []) {
  const child = spawn(serverBinary,
                      ['--listen', '127.0.0.1:0', '--dir', directory, '--threads', '2', ...flags],
                      { stdio: ['ignore', 'pipe', 'pipe'] });
  children.push(child);
  const server = { child, url: null, log: '' };
  child.stderr.setEncoding('utf8');
  child.stderr.on('data', (data) => {
    server.log += data;
    process.stderr.write(data);
  });
  return new Promise((resolvePromise, reject) => {
    let output = '';
    const timer = setTimeout(() => reject(new Error('the server did not start')), 20000);
    child.on('exit', (code) => reject(new Error(`the server exited with ${code}`)));
    child.stdout.on('data', (data) => {
      output += data;
      const match = /^listening on (http:\/\/127\.0\.0\.1:\d+\/)\n/.exec(output);
      if (match) {
        clearTimeout(timer);
        server.url = match[1];
        resolvePromise(server);
      }
    });
  });
}

// Waits for the exit, so the upload directory is removed only once the server is done with it.
function stop(child) {
  if (child.exitCode !== null || child.signalCode !== null) {
    return Promise.resolve();
  }
  return new Promise((resolvePromise) => {
    const timer = setTimeout(() => child.kill('SIGKILL'), 5000);
    child.once('exit', () => {
      clearTimeout(timer);
      resolvePromise();
    });
    child.kill('SIGTERM');
  });
}

async function resultOf(page, selector) {
  const element = page.locator(selector);
  await page.waitForFunction(
    (s) => /\b(ok|error)\b/.test(document.querySelector(s).className), selector, { timeout: 20000 });
  return {
    text: await element.textContent(),
    color: await element.evaluate((e) => getComputedStyle(e).color),
  };
}

async function main() {
  assert.ok(serverBinary, 'KESTRIN_SERVER must name the server binary');
  const root = mkdtempSync(join(tmpdir(), 'kestrin-browser-'));
  const uploads = join(root, 'uploads');
  const children = [];
  let context = null;
  // Whatever happens, nothing outlives the test for long.
  const deadline = setTimeout(() => {
    console.error('browser test: timed out');
    children.forEach((child) => child.kill('SIGKILL'));
    process.exit(1);
  }, 120000);
  try {
    const server = await startServer(children, uploads);
    context = await chromium.launchPersistentContext(join(root, 'profile'), {
      executablePath: '/usr/bin/chromium',
      headless: true,
      args: chromiumArgs,
    });
    const page = context.pages()[0] ?? (await context.newPage());
    await page.goto(server.url);

    // Two files through the form, to the route whose name has a space.
    const first = Buffer.from('first file\r\n--\r\nwith dashes\r\n');
    const second = randomBytes(200 * 1024);
    await page.selectOption('#route', '/ORVANE Drive');
    await page.setInputFiles('#files', [
      { name: 'first.txt', mimeType: 'text/plain', buffer: first },
      { name: 'second.bin', mimeType: 'application/octet-stream', buffer: second },
    ]);
    await page.click('#submit');
    assert.deepEqual(await resultOf(page, '#formResult'), { text: 'SUCCESS', color: green });
    assert.deepEqual(readFileSync(join(uploads, 'first.txt')), first);
    assert.deepEqual(readFileSync(join(uploads, 'second.bin')), second);
    mkdirSync(artifacts, { recursive: true });
    const shot = join(artifacts, 'upload.png');
    await page.screenshot({ path: shot, fullPage: true });
    console.log(`screenshot: ${shot}`);

    // A file the server refuses to store: its error text is shown in red.
    await page.setInputFiles('#files', [{ name: '..', mimeType: 'text/plain', buffer: first }]);
    await page.click('#submit');
    assert.deepEqual(await resultOf(page, '#formResult'),
                     { text: "Refused file name '..': it names a directory", color: red });

    // The drop area's own input uploads with XMLHttpRequest and shows the page's message.
    await page.selectOption('#route', '/users');
    const dropped = randomBytes(64 * 1024);
    await page.setInputFiles('#dropFiles', [{ name: 'dropped.bin', mimeType: 'application/octet-stream', buffer: dropped }]);
    assert.deepEqual(await resultOf(page, '#dropResult'), { text: 'SUCCESS', color: green });
    assert.equal(await page.locator('#dropProgress').evaluate((e) => e.value), 1);
    assert.deepEqual(readFileSync(join(uploads, 'dropped.bin')), dropped);

    assert.deepEqual(readdirSync(uploads).sort(), ['dropped.bin', 'first.txt', 'second.bin']);
    console.log('browser test: passed');
  } finally {
    clearTimeout(deadline);
    await context?.close().catch(() => {});
    await Promise.all(children.map(stop));
    rmSync(root, { recursive: true, force: true });
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});

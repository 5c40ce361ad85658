// Drives Debian's chromium against the real server's demo page: two files chosen and posted
// through the form are shown as "SUCCESS" and land on disk; a failing upload shows its error
// text; the drop area's upload reports its result the same way. Then a page of another site
// tries to replace a file stored through the demo page, with a form and with fetch: the server
// refuses each request and nothing on disk changes; a second server that lists that site as an
// allowed origin stores the same form's file. A screenshot goes to KESTRIN_ARTIFACTS. The server
// binary comes from KESTRIN_SERVER or the first argument.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { chromium } from 'playwright-core';

import { plantedContent, startAttackerSite } from './attacker_site.mjs';

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

// The files in an upload directory, sorted, without the running server's owner file.
function storedNames(directory) {
  return readdirSync(directory).filter((name) => !name.startsWith('.kestrin-upload-owner-')).sort();
}

// Resolves to the log line of the first POST to `target`. The server writes it before it
// answers, so it is there, or on its way through the pipe, once the browser has the answer.
function logLine(server, target) {
  const find = () => server.log.slice(0, server.log.lastIndexOf('\n') + 1).split('\n')
    .find((line) => line.includes(` POST "${target}" `));
  return new Promise((resolvePromise, reject) => {
    const check = () => {
      const line = find();
      if (line !== undefined) {
        done();
        resolvePromise(line);
      }
    };
    const timer = setTimeout(() => {
      done();
      reject(new Error(`the server never saw POST ${target}: did the browser block it?`));
    }, 10000);
    const done = () => {
      clearTimeout(timer);
      server.child.stderr.off('data', check);
    };
    server.child.stderr.on('data', check);
    check();
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
  let site = null;
  let context = null;
  // Whatever happens, nothing outlives the test for long.
  const deadline = setTimeout(() => {
    console.error('browser test: timed out');
    children.forEach((child) => child.kill('SIGKILL'));
    process.exit(1);
  }, 120000);
  try {
    const server = await startServer(children, uploads);
    site = await startAttackerSite();
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

    // The owner's own file, stored through the demo page: what the other site tries to replace.
    const victim = 'stored by the owner through the upload page\n';
    await page.setInputFiles('#files',
                             [{ name: 'victim.txt', mimeType: 'text/plain', buffer: Buffer.from(victim) }]);
    await page.click('#submit');
    assert.deepEqual(await resultOf(page, '#formResult'), { text: 'SUCCESS', color: green });
    const stored = ['dropped.bin', 'first.txt', 'second.bin', 'victim.txt'];
    assert.deepEqual(storedNames(uploads), stored);

    // A page of another site posts its own victim.txt with a form on load, then no-cors.txt and
    // cors.txt with fetch. The server's log proves each request really left the browser (so
    // "nothing stored" is not the browser's doing) and was refused before its body was read.
    const attacker = await context.newPage();
    await attacker.goto(site.attack(`${server.url}users`, 'victim.txt'));
    await attacker.waitForFunction(() => window.frameLoads > 0, null, { timeout: 20000 });
    const formLine = await logLine(server, '/users?attack=form');
    const noCors = await attacker.evaluate(() => window.send('no-cors.txt', 'no-cors'));
    const noCorsLine = await logLine(server, '/users?attack=no-cors');
    const cors = await attacker.evaluate(() => window.send('cors.txt', 'cors'));
    const corsLine = await logLine(server, '/users?attack=cors');
    // Read after the fetches: a message the frame's answer posted would have arrived by then.
    const messages = await attacker.evaluate(() => window.messages);

    // Each attack is judged on its own, so one run names every protection that is missing.
    const refused = new RegExp(` 403 in=0 ms=[\\d.]+ reason=".*Origin ${site.origin}\\b`);
    const failures = [];
    const verify = (what, check) => {
      try {
        check();
      } catch (error) {
        if (!(error instanceof assert.AssertionError)) {
          throw error;
        }
        failures.push(`${what}: ${error.message}`);
      }
    };
    verify('form from another site', () => {
      assert.equal(readFileSync(join(uploads, 'victim.txt'), 'utf8'), victim);
      assert.match(formLine, refused);
    });
    verify('fetch in no-cors mode', () => {
      assert.ok(!existsSync(join(uploads, 'no-cors.txt')), 'no-cors.txt was stored');
      assert.equal(noCors, 'opaque 0');
      assert.match(noCorsLine, refused);
    });
    // Multipart is a simple request: the browser sends it without asking first and only then
    // hides the answer from the page, so the server alone decides whether anything is stored.
    verify('fetch in cors mode', () => {
      assert.ok(!existsSync(join(uploads, 'cors.txt')), 'cors.txt was stored');
      assert.equal(cors, 'TypeError');
      assert.match(corsLine, refused);
    });
    // The refusal is plain text, not a result page: the other site hears nothing.
    verify('messages to the page of another site', () => assert.deepEqual(messages, []));
    verify('upload directory', () => assert.deepEqual(storedNames(uploads), stored));
    if (failures.length > 0) {
      throw new Error(`uploads from another site were not refused:\n${failures.join('\n')}`);
    }

    // A site listed with --allow-origin embeds the upload on purpose: the same form stores its
    // file there, and the result page's message reaches the embedding page.
    const listed = join(root, 'listed');
    const listing = await startServer(children, listed, ['--allow-origin', site.origin]);
    await attacker.goto(site.attack(`${listing.url}users`, 'victim.txt'));
    assert.match(await logLine(listing, '/users?attack=form'),
      / 200 in=\d+ ms=[\d.]+ files="victim\.txt":\d+$/);
    assert.deepEqual(storedNames(listed), ['victim.txt']);
    assert.equal(readFileSync(join(listed, 'victim.txt'), 'utf8'), plantedContent);
    await attacker.waitForFunction(() => window.messages.length > 0, null, { timeout: 20000 });
    assert.deepEqual(await attacker.evaluate(() => window.messages), ['SUCCESS']);
    console.log('browser test: passed');
  } finally {
    clearTimeout(deadline);
    await context?.close().catch(() => {});
    await Promise.all(children.map(stop));
    site?.close();
    rmSync(root, { recursive: true, force: true });
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});

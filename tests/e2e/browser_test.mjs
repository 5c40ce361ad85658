// Drives Debian's chromium against the real server's upload page: the plain form posts into its
// frame; chosen files get a row each, three in flight, through a throttled link whose progress
// rises; cancelled ones store nothing; refusals are put in words beside the server's text; the
// drop zone works from the keyboard and the page on a phone. A page of another site tries to
// replace a stored file with a form and with fetch and is refused, unless listed with
// --allow-origin. Against a small --max-body, a file over it is never sent. Screenshots of each
// state go to KESTRIN_ARTIFACTS. The server binary comes from KESTRIN_SERVER or the first argument.
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

// Starts a server and adds its process to `children` at once, so it is stopped even if it never
// says where it listens. Its log is kept for the test to read and still shown as it comes.
function startServer(children, directory, flags = [], listen = '127.0.0.1:0') {
  const child = spawn(serverBinary,
                      ['--listen', listen, '--dir', directory, '--threads', '2', ...flags],
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

// Every change to the rows, as snapshots of each row's name, state and percent.
function recordRows() {
  window.snapshots = [];
  new MutationObserver(() => window.snapshots.push(Array.from(
    document.querySelectorAll('#rows .row'), (row) => ({
      name: row.querySelector('.name').textContent,
      state: row.dataset.state,
      percent: row.querySelector('.percent').textContent,
    })))).observe(document.querySelector('#rows'),
    { subtree: true, childList: true, attributes: true, characterData: true });
}

// The outcome of the plain form ('#formResult') or of a file's row, once it has one.
async function outcomeOf(page, where) {
  const outcome = page.locator(where.startsWith('#') ? where
    : `#rows .row:has(.name:text-is("${where}")) .outcome`);
  await outcome.and(page.locator('.stored, .refused, .failed, .cancelled')).waitFor();
  return outcome.evaluate((e) => ({
    state: e.classList[1],
    sentence: e.querySelector('.sentence').textContent,
    original: e.querySelector('code')?.textContent,
  }));
}

const file = (name, buffer) => ({ name, mimeType: 'application/octet-stream', buffer });
const posts = (server) => server.log.split('\n').filter((line) => / POST "/.test(line)).length;

async function shoot(page, name) {
  mkdirSync(artifacts, { recursive: true });
  await page.screenshot({ path: join(artifacts, `${name}.png`), fullPage: true });
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
  }, 150000);
  try {
    const server = await startServer(children, uploads);
    site = await startAttackerSite();
    context = await chromium.launchPersistentContext(join(root, 'profile'), {
      executablePath: '/usr/bin/chromium',
      headless: true,
      args: chromiumArgs,
    });
    const page = context.pages()[0] ?? (await context.newPage());
    page.setDefaultTimeout(30000);
    await page.goto(server.url);
    assert.equal(await page.textContent('#limitText'), '1 GiB');

    // The plain form posts two files in one request into its frame, to the route whose name
    // has a space; nothing chosen sends nothing; a name the server refuses is put in words.
    const first = Buffer.from('first file\r\n--\r\nwith dashes\r\n');
    const second = randomBytes(200 * 1024);
    await page.selectOption('#route', '/ORVANE Drive');
    await page.click('#submit');
    assert.equal((await outcomeOf(page, '#formResult')).state, 'refused');
    await page.setInputFiles('#files', [file('first.txt', first), file('second.bin', second)]);
    await page.click('#submit');
    const stored = { state: 'stored', sentence: 'Stored.', original: 'SUCCESS' };
    assert.deepEqual(await outcomeOf(page, '#formResult'), stored);
    assert.equal(posts(server), 1);
    assert.deepEqual(readFileSync(join(uploads, 'first.txt')), first);
    assert.deepEqual(readFileSync(join(uploads, 'second.bin')), second);
    await page.setInputFiles('#files', [file('..', first)]);
    await page.click('#submit');
    const refusedName = {
      state: 'refused',
      sentence: 'This name stands for a folder and cannot name a file. Rename the file and try again.',
      original: "Refused file name '..': it names a directory",
    };
    assert.deepEqual(await outcomeOf(page, '#formResult'), refusedName);

    // Several files, each its own request and row, through a slow link: never more than three
    // in flight, started in the order chosen; the refused name gets its sentence and text.
    await page.selectOption('#route', '/users');
    await page.evaluate(recordRows);
    const cdp = await context.newCDPSession(page);
    const throttle = (bytesPerSecond) => cdp.send('Network.emulateNetworkConditions', {
      offline: false, latency: 20, downloadThroughput: -1, uploadThroughput: bytesPerSecond });
    await throttle(2 * 1024 * 1024);
    const longName = 'a_file_name_far_too_long_for_one_line_on_a_phone_unless_it_wraps_anywhere.bin';
    const several = ['one.bin', 'two.bin', '..', longName, 'five.bin']
      .map((name) => file(name, randomBytes(300 * 1024)));
    await page.setInputFiles('#dropFiles', several);
    await shoot(page, 'several-files');
    for (const { name, buffer } of several) {
      assert.deepEqual(await outcomeOf(page, name), name === '..' ? refusedName : stored);
      if (name !== '..') {
        assert.deepEqual(readFileSync(join(uploads, name)), buffer);
      }
    }
    let snapshots = await page.evaluate(() => window.snapshots);
    const open = (rows) => rows.filter((row) => /uploading|storing/.test(row.state)).length;
    assert.equal(Math.max(...snapshots.map(open)), 3);
    const started = snapshots.flat().filter((row) => row.state !== 'queued').map((row) => row.name);
    assert.deepEqual([...new Set(started)], several.map(({ name }) => name));

    // A large file rises through its percentages to "storing" and is stored; one cancelled on
    // its way, and four cancelled at once (three sending, one waiting), store nothing.
    await throttle(512 * 1024);
    await page.evaluate(recordRows);
    const big = randomBytes(3 * 1024 * 1024);
    await page.setInputFiles('#dropFiles', [file('big.bin', big), file('cancelled.bin', big)]);
    const reached = (name, least) => page.waitForFunction(([n, l]) => [...document.querySelectorAll('.row')]
      .some((row) => row.querySelector('.name').textContent === n &&
                     parseInt(row.querySelector('.percent').textContent, 10) >= l), [name, least]);
    await reached('cancelled.bin', 20);
    assert.match(await page.locator('.row[data-state=uploading] .numbers').first().textContent(),
                 /^[\d.]+ [KM]iB of 3 MiB sent · [\d.]+ [KM]iB\/s · about \d+ s left$/);
    assert.match(await page.getByRole('progressbar', { name: 'Upload of cancelled.bin' })
      .getAttribute('aria-valuetext'), /^\d+%, [\d.]+ [KM]iB of 3 MiB$/);
    await shoot(page, 'uploading');
    await page.getByRole('button', { name: 'Cancel cancelled.bin' }).click();
    assert.equal((await outcomeOf(page, 'cancelled.bin')).sentence, 'Cancelled. Nothing was stored.');
    assert.equal((await outcomeOf(page, 'big.bin')).state, 'stored');
    assert.deepEqual(readFileSync(join(uploads, 'big.bin')), big);
    snapshots = await page.evaluate(() => window.snapshots);
    const bigRows = snapshots.flat().filter((row) => row.name === 'big.bin');
    const percents = bigRows.map((row) => parseInt(row.percent, 10)).filter((p) => p >= 0);
    assert.ok(new Set(percents.filter((p) => p > 0 && p < 100)).size >= 3, `percents ${percents}`);
    assert.deepEqual(percents, [...percents].sort((a, b) => a - b));
    assert.ok(bigRows.some((row) => row.state === 'storing' && row.percent === 'storing'));
    const rest = ['r1.bin', 'r2.bin', 'r3.bin', 'r4.bin'];
    await page.setInputFiles('#dropFiles', rest.map((name) => file(name, big)));
    await reached('r1.bin', 5);
    await page.click('#cancelAll');
    for (const name of rest) {
      assert.equal((await outcomeOf(page, name)).state, 'cancelled', name);
    }
    assert.equal((await outcomeOf(page, 'r4.bin')).sentence, 'Cancelled before it was sent.');
    await throttle(-1);
    await shoot(page, 'outcomes');

    // From the keyboard alone: tab to the drop zone, Enter or Space opens the chooser, the file
    // is sent and its result announced. The chooser is caught from the first press on.
    const choosers = [];
    page.on('filechooser', (chooser) => choosers.push(chooser));
    await page.evaluate(() => document.activeElement.blur());
    for (let tabs = 0; tabs < 10 && !(await page.evaluate(() => document.activeElement.id === 'dropZone')); ++tabs) {
      await page.keyboard.press('Tab');
    }
    for (const key of ['Enter', ' ']) {
      await page.keyboard.press(key);
      await page.waitForFunction(() => true);
    }
    assert.equal(choosers.length, 2);
    await choosers[0].setFiles([file('keyboard.txt', first)]);
    assert.equal((await outcomeOf(page, 'keyboard.txt')).state, 'stored');
    assert.equal(await page.textContent('#announce'), 'keyboard.txt: Stored.');
    for (const cancelled of ['cancelled.bin', ...rest, '.kestrin-upload-']) {
      assert.ok(!storedNames(uploads).some((name) => name.startsWith(cancelled)), cancelled);
    }

    // On a phone: nothing scrolls sideways, every control is a finger wide.
    await page.setViewportSize({ width: 360, height: 800 });
    const width = await page.evaluate(() => document.documentElement.scrollWidth);
    assert.ok(width <= 360, `the page is ${width} px wide`);
    assert.deepEqual(await page.evaluate(() => [...document.querySelectorAll('button, select, #dropZone')]
      .filter((e) => e.offsetParent !== null).map((e) => e.getBoundingClientRect())
      .filter((box) => box.width < 44 || box.height < 44)), []);
    await shoot(page, 'phone');

    // The owner's own file, stored through the demo page: what the other site tries to replace.
    const victim = 'stored by the owner through the upload page\n';
    await page.setInputFiles('#files',
                             [{ name: 'victim.txt', mimeType: 'text/plain', buffer: Buffer.from(victim) }]);
    await page.click('#submit');
    assert.equal((await outcomeOf(page, '#formResult')).original, 'SUCCESS');
    const kept = ['big.bin', 'first.txt', 'five.bin', 'keyboard.txt', 'one.bin', 'second.bin',
                  'two.bin', 'victim.txt', longName].sort();
    assert.deepEqual(storedNames(uploads), kept);

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
    verify('upload directory', () => assert.deepEqual(storedNames(uploads), kept));
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

    // A server with a small body limit: the page says it, and a file over it is refused on the
    // page, so the server never sees it; the next file under it is the only request it logs.
    const limited = await startServer(children, join(root, 'limited'), ['--max-body', '256K']);
    await page.goto(limited.url);
    assert.equal(await page.textContent('#limitText'), '256 KiB');
    await page.setInputFiles('#dropFiles',
                             [file('large.bin', randomBytes(300 * 1024)), file('small.bin', first)]);
    assert.deepEqual(await outcomeOf(page, 'large.bin'), {
      state: 'refused', original: undefined,
      sentence: 'Not sent: 300 KiB is over the 256 KiB limit. Send a smaller file, or split it.',
    });
    assert.equal((await outcomeOf(page, 'small.bin')).state, 'stored');
    await page.setInputFiles('#files', [file('large.bin', randomBytes(300 * 1024))]);
    await page.click('#submit');
    assert.match((await outcomeOf(page, '#formResult')).sentence, /^Not sent: 300 KiB is over/);
    await shoot(page, 'over-limit');
    await logLine(limited, '/users');
    assert.equal(posts(limited), 1);
    // Restarted with a lower limit, the server answers 413 and the page says what happened.
    await stop(limited.child);
    const lowered = await startServer(children, join(root, 'limited'), ['--max-body', '64K'],
                                      new URL(limited.url).host);
    await page.setInputFiles('#dropFiles', [file('medium.bin', randomBytes(100 * 1024))]);
    assert.deepEqual(await outcomeOf(page, 'medium.bin'), {
      state: 'refused', original: '413 Payload Too Large',
      sentence: "100 KiB is over the server's limit, which is lower than when this page was " +
                'loaded. Reload the page to see it.',
    });
    assert.match(await logLine(lowered, '/users'), / 413 in=0 /);
    await page.setInputFiles('#files', [file('medium.bin', randomBytes(100 * 1024))]);
    await page.click('#submit');
    assert.deepEqual(await outcomeOf(page, '#formResult'), {
      state: 'refused', original: 'Payload Too Large',
      sentence: (await outcomeOf(page, 'medium.bin')).sentence });
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

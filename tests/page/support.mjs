// What the page tests share: small logs, the programs that turn them into pages, and a browser.
import { execFileSync } from 'node:child_process';
import { copyFileSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';
import { chromium } from 'playwright-core';

export const root = join(dirname(fileURLToPath(import.meta.url)), '..', '..');
const header = 'Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7\r\n';

/** Text of a log: each event is [date, user, event, ...params], the date as month/day/year. */
export function logText(events) {
  return header + events.map(([date, user, event, ...params]) =>
    [`${date} 10:00:00`, user, 'WS1', event, ...params].join(';') + '\r\n').join('');
}

/** A folder of its own, removed when the tests have run. */
export function folderFor(context) {
  const folder = mkdtempSync(join(tmpdir(), 'qel-page-'));
  context.after(() => rmSync(folder, { recursive: true, force: true }));
  return folder;
}

function writeLogs(folder, { interaction = [], audit = [], groups = {} }) {
  writeFileSync(join(folder, 'interaction.csv'), Array.isArray(interaction) ? logText(interaction) : interaction);
  writeFileSync(join(folder, 'audit.csv'), Array.isArray(audit) ? logText(audit) : audit);
  writeFileSync(join(folder, 'groups.txt'),
    Object.entries(groups).map(([user, names]) => [user, ...names].join(';') + '\n').join(''));
}

/** Writes a page by the command, as people do; returns its path. */
export function guardedPage(folder, kind, logs, ...options) {
  writeLogs(folder, logs);
  const groups = kind === 'usage' ? ['--groups', join(folder, 'groups.txt'), '--photodoc-details'] : [];
  execFileSync(process.env.QEL_AUDIT, ['report', kind, '--quiet', '--interaction', join(folder, 'interaction.csv'),
    '--audit', join(folder, 'audit.csv'), '--out', join(folder, 'out'), ...groups, ...options],
    { stdio: ['ignore', 'ignore', 'ignore'] });
  return join(folder, 'out', kind === 'usage' ? 'usage_report.html' : 'teleradiology_report.html');
}

/** Writes a page by the library alone, which cleans nothing. */
export function rawPage(folder, logs) {
  writeLogs(folder, logs);
  execFileSync(process.env.QEL_WRITE_REPORTS, [folder], { stdio: 'ignore' });
  copyFileSync(join(root, 'node_modules/d3/dist/d3.min.js'), join(folder, 'details', 'd3.min.js'));
  return join(folder, 'details', 'usage_report.html');
}

/** A page of one text, with the script library beside it. */
export function pageOf(folder, html) {
  mkdirSync(folder, { recursive: true });
  copyFileSync(join(root, 'node_modules/d3/dist/d3.min.js'), join(folder, 'd3.min.js'));
  writeFileSync(join(folder, 'page.html'), html);
  return join(folder, 'page.html');
}

let browser;

export async function startBrowser() {
  browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    timeout: 120000,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
}

export async function stopBrowser() {
  await browser?.close();
}

/** Opens a file; `faults` collects everything that a browser complains about. */
export async function open(context, file, viewport = { width: 1300, height: 900 }) {
  const page = await browser.newPage({ viewport });
  page.setDefaultTimeout(120000);
  context.after(() => page.close());
  const faults = [];
  page.on('console', message => { if (message.type() === 'error') faults.push(message.text()); });
  page.on('pageerror', error => faults.push(String(error)));
  page.on('dialog', dialog => { faults.push('dialog ' + dialog.message()); dialog.dismiss(); });
  page.on('requestfailed', request => faults.push('failed ' + request.url()));
  await page.goto(pathToFileURL(file).href);
  return { page, faults };
}

/** What a reader sees of every chart: title, legend, bars and labels with their places. */
export function readCharts(page) {
  return page.evaluate(() => [...document.querySelectorAll('div[id^="chart-"]')].map(div => {
    const number = (element, name) => Number(element.getAttribute(name));
    const move = element => element.getAttribute('transform').match(/-?[0-9.]+/g).map(Number);
    const plot = div.querySelector('svg > g:not(.legend)');
    return {
      id: div.id,
      title: div.querySelector('h2').textContent,
      margin: move(plot),
      ticks: [...div.querySelectorAll('.axis--x .tick text')].map(text => text.textContent),
      bars: [...plot.querySelectorAll('rect')].map(bar => ({
        x: number(bar, 'x'), y: number(bar, 'y'), width: number(bar, 'width'), height: number(bar, 'height'),
        fill: bar.getAttribute('fill'),
      })),
      labels: [...plot.querySelectorAll(':scope > g:not(.axis) text')].map(text => text.textContent),
      legend: [...div.querySelectorAll('.legend')].map(entry => ({
        text: entry.querySelector('text').textContent, fill: entry.querySelector('rect').getAttribute('fill'),
        place: move(entry), width: entry.getBBox().width,
      })),
    };
  }));
}

/** The height that a value's bar must have in a chart whose largest value is `largest`. */
export function barHeight(page, value, largest) {
  return page.evaluate(([v, max]) => 270 - d3.scaleLinear().domain([0, max]).range([270, 0]).nice()(v),
    [value, largest]);
}

/** The printed page: for each sheet its size and its words with their places, all in points, and its lines of text. */
export async function printed(page, folder, options) {
  const file = join(folder, 'printed.pdf');
  const margin = { top: '1cm', right: '1cm', bottom: '1cm', left: '1cm' };  // what browsers leave
  await page.pdf({ path: file, format: 'A4', printBackground: true, margin, ...options });
  const text = (...more) => execFileSync('pdftotext', [...more, file, '-'], { encoding: 'utf8' });
  const lines = text('-layout').split('\f').map(sheet => sheet.split('\n').map(line => line.trim()));
  const number = (attributes, name) => Number(attributes.match(new RegExp(`${name}="([-0-9.]+)"`))[1]);
  return text('-bbox').split('<page ').slice(1).map((sheet, i) => ({
    width: number(sheet, 'width'),
    height: number(sheet, 'height'),
    lines: lines[i],
    words: [...sheet.matchAll(/<word ([^>]*)>([^<]*)</g)].map(([, place, word]) => ({
      word, left: number(place, 'xMin'), right: number(place, 'xMax'), top: number(place, 'yMin'), bottom: number(place, 'yMax'),
    })),
  }));
}

/** Numbers that only look random. */
export function numbers(seed) {
  let state = seed;
  return bound => {
    state = (state * 1103515245 + 12345) % 2147483648;
    return Math.floor(state / 65536) % bound;
  };
}

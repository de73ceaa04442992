// The chart template by itself, with numbers that no report of the product has.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { folderFor, open, pageOf, readCharts, root, startBrowser, stopBrowser } from './support.mjs';

before(startBrowser);
after(stopBrowser);

const template = name => readFileSync(join(root, 'src/report/templates', name + '.html'), 'utf8');

function chartPage(folder, keys, columns, rows) {
  const data = rows.map(([label, ...values]) =>
    `{ xLabel: "${label}"` + values.map((value, i) => `, "${keys[i]}": ${value.toFixed(6)}`).join('') + '}');
  const chart = template('barchart').replaceAll('[[[[CHART ID]]]]', '0').replaceAll('[[[[CHART TITLE]]]]', 'Chart')
    .replaceAll('[[[[DATA]]]]', `[${data}]`).replaceAll('[[[[KEYS]]]]', JSON.stringify(keys))
    .replaceAll('[[[[NUM ITEMS PER ROW]]]]', String(columns));
  return pageOf(folder, template('header').replaceAll('<img', '<i') + chart);
}

test('one key has one legend row', async t => {
  const { page, faults } = await open(t, chartPage(folderFor(t), ['one'], 5, [['January 2025', 3]]));
  const [chart] = await readCharts(page);
  assert.deepEqual(chart.margin, [50, 45]);
  assert.deepEqual(faults, []);
});

test('seven keys in rows of three have three legend rows', async t => {
  const keys = ['a', 'b', 'c', 'd', 'e', 'f', 'g'];
  const { page } = await open(t, chartPage(folderFor(t), keys, 3, [['January 2025', 1, 2, 3, 4, 5, 6, 7]]));
  const [chart] = await readCharts(page);
  assert.deepEqual(chart.margin, [50, 75]);
  assert.deepEqual(chart.legend.map(entry => entry.place[1]), [0, 0, 0, 15, 15, 15, 30]);
  const box = await page.evaluate(() => document.querySelector('svg').getAttribute('viewBox'));
  assert.equal(box, '0 0 1200 445');
});

test('a bar lower than fifteen pixels shows no value', async t => {
  const { page } = await open(t, chartPage(folderFor(t), ['n'], 5, [['a', 270], ['b', 16], ['c', 15], ['d', 0]]));
  const [chart] = await readCharts(page);
  const shown = chart.bars.map(bar => bar.height >= 15);
  assert.deepEqual(chart.labels.map(label => label !== ''), shown);
  assert.deepEqual(shown, [true, true, false, false]);
});

test('ticks of the x axis are turned and never broken', async t => {
  const label = 'a label of many words that is longer than its bar';
  const { page } = await open(t, chartPage(folderFor(t), ['n'], 5, [...Array(12).keys()].map(i => [`${label} ${i}`, i])));
  const ticks = await page.evaluate(() => [...document.querySelectorAll('.axis--x .tick text')].map(text => ({
    turn: text.getAttribute('transform'), spans: text.querySelectorAll('tspan').length, anchor: text.style.textAnchor })));
  for (const tick of ticks)
    assert.deepEqual(tick, { turn: 'rotate(-40)', spans: 0, anchor: 'end' });
});

test('the wrapping that axes do not use works all the same', async t => {
  const { page } = await open(t, chartPage(folderFor(t), ['n'], 5, [['a', 1]]));
  const lines = await page.evaluate(() => {
    const text = d3.select('svg').append('text').attr('dy', '0.5em').text('one two three four five six');
    text.call(wrapXLabel, 60);
    return text.selectAll('tspan').nodes().map(span => ({ text: span.textContent, dy: span.getAttribute('dy') }));
  });
  assert.ok(lines.length > 1);
  assert.equal(lines.map(line => line.text).join(' '), 'one two three four five six');
  assert.equal(lines[0].dy, '0.5em');
  assert.equal(lines[1].dy, '1.6em');
});

// The tables of the quality-control report in a browser.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { dirname } from 'node:path';
import { folderFor, guardedPage, open, printed, startBrowser, stopBrowser } from './support.mjs';

before(startBrowser);
after(stopBrowser);

const readTables = page => page.evaluate(() => [...document.querySelectorAll('div[id^="table-"]')].map(div => ({
  title: div.querySelector('h2').textContent,
  head: [...div.querySelectorAll('th')].map(cell => cell.textContent),
  rows: [...div.querySelectorAll('tbody tr')].map(row => [...row.cells].map(cell => cell.textContent)),
})));

test('the tables are complete', async t => {
  const audit = [];
  for (let day = 1; day <= 28; ++day)
    audit.push([`7/${day}/2025`, 'anna', 'DailyConstancyCheck', '1', '', '1', '0', 'passed', day % 2 ? 'passed' : 'failed'],
      [`7/${day}/2025`, 'bert', 'ConstancyLuxMeter', String(400 + day), '2'],
      [`7/${day}/2025`, 'bert', 'ConstancySpeedTest', 'Quick', `${day}.5`]);
  const file = guardedPage(folderFor(t), 'teleradiology', { audit });
  const { page, faults } = await open(t, file);
  const [check, lux, speed] = await readTables(page);
  assert.equal(check.title, 'Daily constancy check');
  assert.deepEqual(check.head, ['Day', 'Tester', 'Line pair grid in center and corners', '5% and 95% fields',
    'QUALITY CONTRO((L) white and gray)', 'Centering, borders and lines of the grid', 'Gradient', 'passed/failed']);
  assert.equal(check.rows.length, 28);
  assert.deepEqual(check.rows[0], ['01 Jul 2025 08:00', 'anna', '✓', '✗', '✓', '0', '✅', '✅']);
  assert.equal(check.rows[27][7], '❌');
  assert.deepEqual(lux.rows.map(row => row[2]), [...Array(28).keys()].map(day => String(401 + day)));
  assert.deepEqual(speed.rows[27], ['28 Jul 2025 08:00', 'bert', 'Quick', '28.5']);

  // On paper every row is whole, and each sheet that continues a table repeats its head.
  for (const landscape of [false, true]) {
    const sheets = await printed(page, dirname(file), { landscape });
    for (const { title, head, rows } of [lux, speed]) {
      const wanted = rows.map(row => row.join(' '));
      const holding = sheets.filter(({ lines }) => lines.some(line => wanted.includes(line.replace(/\s+/g, ' '))));
      const found = holding.flatMap(({ lines }) => lines.map(line => line.replace(/\s+/g, ' '))).filter(line => wanted.includes(line));
      assert.deepEqual(found, wanted, title);
      for (const { lines } of holding)
        assert.ok(lines.some(line => line.replace(/\s+/g, ' ') === head.join(' ')), `${title}: the head on each sheet`);
    }
    for (const { words, width } of sheets)
      assert.ok(words.every(({ left, right }) => left >= 0 && right <= width));
  }
  assert.deepEqual(faults, []);
});

test('hostile cells are text', async t => {
  const audit = ['<img src=x onerror="window.pwned=1">', '"}],x=(window.pwned=1),y=[{"', '</script><script>window.pwned=1</script>',
    '\\', '\u2028', '[[[[TABLE CONTENT]]]]'].map(text => ['7/1/2025', text, 'ConstancyLuxMeter', text, '2']);
  const { page, faults } = await open(t, guardedPage(folderFor(t), 'teleradiology', { audit }));
  const [lux] = await readTables(page);
  assert.equal(lux.rows.length, audit.length);
  assert.equal(await page.evaluate(() => window.pwned), undefined);
  assert.deepEqual(faults, []);
});

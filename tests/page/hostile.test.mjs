// Logs whose texts try to act in the reader's browser.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';
import { folderFor, guardedPage, open, rawPage, readCharts, startBrowser, stopBrowser } from './support.mjs';

before(startBrowser);
after(stopBrowser);

const acts = 'window.pwned=1';
const texts = [
  `"}],x=(${acts}),y=[{a:"`,
  `"],x=(${acts}),y=["`,
  `":1}],x=(${acts}),y=[{"`,
  `\\"],x=(${acts}),y=["`,
  `</script><script>${acts}</script>`,
  `</SCRIPT ><script>${acts}</script>`,
  `<img src=x onerror=${acts}>`,
  `<svg/onload=${acts}>`,
  `<b onmouseover=${acts}>x</b>`,
  `<!--<script>`,
  `-->`,
  `&ltimg src=x onerror=${acts}&gt`,
  '`${' + acts + '}`',
  `','${acts}'`,
  `\\`,
  `CLINIC\\anna`,
  `\\u0022],x=(${acts}),y=["`,
  `\u2028${acts}//`,
  `\u2029${acts}//`,
  `\u202Eanna\u202C`,
  `\u2066anna\u2069`,
  `\u0000\u0001\u001b[31m`,
  `a\rb`,
  `\u0085\u009b`,
  `[[[[DATA]]]]`,
  `[[[[[[[[KEYS]]]]]]]]`,
  `__proto__`,
  `constructor`,
  `xLabel`,
  `toString`,
  `hasOwnProperty`,
  `%s%n%f`,
  `javascript:${acts}`,
  `\u2060anna`,
  `anna`,
  `\ufeff<script>${acts}</script>`,
  `\u{1F600}<`,
];

/** Texts that a semicolon spreads over the fields of a line. */
const spread = [`"];${acts};//`, `": 1}];${acts};var x=[{"`, `&lt;img src=x onerror=${acts}&gt;`, `';${acts};'`];

function hostileLogs() {
  const interaction = [];
  const audit = [];
  for (const text of texts)
    for (const month of [1, 2]) {
      interaction.push([`${month}/1/2025`, text, 'SeriesOpened', text], [`${month}/1/2025`, text, 'PDConfirmDone'],
        [`${month}/1/2025`, text, text, text, text], [`${month}/1/2025`, `invite-${text}`, 'SeriesOpened']);
      audit.push([`${month}/1/2025`, text, 'DataAccess', text, text], [`${month}/1/2025`, text, 'DataShare', text, text, 'contact']);
    }
  const groups = Object.fromEntries(texts.filter(text => !/[\r\n;]/.test(text)).map(text => [text, [text, 'all']]));
  return { interaction, audit, groups };
}

/** Every tooltip is put together as markup: look at each once. */
const hoverEverything = page => page.evaluate(() => {
  for (const bar of document.querySelectorAll('svg > g rect'))
    bar.dispatchEvent(new MouseEvent('mouseover', { bubbles: true, clientX: 1, clientY: 1 }));
});

test('no text of a log runs in the page', async t => {
  const file = guardedPage(folderFor(t), 'usage', hostileLogs(), '--server', `"><script>${acts}</script><b title="`);
  const { page, faults } = await open(t, file);
  await hoverEverything(page);
  await page.waitForTimeout(300);
  assert.equal(await page.evaluate(() => window.pwned), undefined);
  assert.deepEqual(faults, []);
  assert.equal(await page.locator('svg img, .tooltip img, .tooltip script, .header b').count(), 0);

  const charts = await readCharts(page);
  const chart = title => charts.find(found => found.title === title);
  const names = new Set(texts);
  assert.equal(chart('Active users').ticks.length, names.size, 'different names stay different');
  assert.equal(chart('Photodocs performed per user per month').legend.length, names.size);
  assert.equal(chart('Series and Studies viewed per user per month').bars.length, 2 * names.size);
  for (const found of charts)
    for (const bar of found.bars)
      assert.ok(Number.isFinite(bar.height) && bar.height >= 0, found.title);
  for (const label of chart('Active users per month').labels)
    assert.equal(label, String(names.size));
});

test('each text by itself does no harm', async t => {
  const folder = folderFor(t);
  for (const text of [...texts, ...spread]) {
    const interaction = [['1/1/2025', text, 'SeriesOpened'], ['1/1/2025', text, 'PDConfirmDone']];
    const { page, faults } = await open(t, guardedPage(folder, 'usage', { interaction, groups: { x: ['y'] } }));
    await hoverEverything(page);
    assert.equal(await page.evaluate(() => window.pwned), undefined, JSON.stringify(text));
    assert.deepEqual(faults, [], JSON.stringify(text));
    if (texts.includes(text))
      assert.equal((await readCharts(page)).length, 6, JSON.stringify(text));
    await page.close();
  }
});

test('without the guard the same texts would act', async t => {
  const { page } = await open(t, rawPage(folderFor(t), {
    interaction: [['1/1/2025', texts[0], 'SeriesOpened']],
  }));
  assert.equal(await page.evaluate(() => window.pwned), 1);
});

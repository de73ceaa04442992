// The usage report as a reader sees it in a browser.
import assert from 'node:assert/strict';
import { statSync } from 'node:fs';
import { dirname } from 'node:path';
import { after, before, test } from 'node:test';
import { barHeight, folderFor, guardedPage, numbers, open, printed, readCharts, startBrowser, stopBrowser } from './support.mjs';

before(startBrowser);
after(stopBrowser);

const users = ['anna.schmidt', 'b.weber', 'christine.maier', 'd.koenig', 'e.hoffmann', 'f.wagner', 'g.lindner'];
const groups = Object.fromEntries(users.map((user, i) => [user, i % 2 ? ['radiology'] : ['radiology', 'surgery']]));

/** A year of work; everybody works on five days of every month. */
function year() {
  const below = numbers(7);
  const interaction = [];
  const audit = [];
  for (let month = 1; month <= 12; ++month)
    for (const [i, user] of users.entries())
      for (let day = 1; day <= 5; ++day) {
        const date = `${month}/${day}/2025`;
        for (let n = below(9) + 1; n > 0; --n)
          interaction.push([date, user, 'SeriesOpened']);
        interaction.push([date, user, 'ApplicationPacsSearch'], [date, user, 'QRRetrieve', below(2) ? 'Series' : 'Study'],
          [date, user, 'ChatSendMessage', 'room', below(3) ? 'Text' : 'Series'], [date, user, 'PDConfirmDone'],
          [date, user, 'PDReviewAssignPhotos', String(below(8))], [date, user, 'PDTaggingUsed'],
          [date, user, 'PDReviewOpenView']);
        audit.push([date, user, 'DataAccess', `1.2.${month}.${day}`, `1.3.${month}.${day}.${i}`],
          [date, user, 'DataShare', `1.2.${month}.${day}`, 'somebody', ['contact', 'weblink', 'sendto'][below(3)]]);
      }
  for (let month = 1; month <= 12; ++month)
    interaction.push([`${month}/6/2025`, `invite-${month}`, 'SeriesOpened']);
  return { interaction, audit, groups };
}

function perMonth(events, wanted) {
  const counts = Array(12).fill(0);
  for (const event of events)
    if (wanted(event))
      ++counts[Number(event[0].split('/')[0]) - 1];
  return counts;
}

const months = ['January', 'February', 'March', 'April', 'May', 'June', 'July', 'August', 'September', 'October',
  'November', 'December'].map(month => `${month} 2025`);

test('a year of all charts', async t => {
  const logs = year();
  const file = guardedPage(folderFor(t), 'usage', logs, '--server', 'pacs.example');
  const { page, faults } = await open(t, file);
  const charts = await readCharts(page);
  const chart = title => charts.find(found => found.title === title);

  await t.test('loads without a complaint and shows its images', async () => {
    assert.deepEqual(faults, []);
    const sizes = await page.evaluate(() => [...document.images].map(image => image.naturalWidth));
    assert.deepEqual(sizes, [920, 128]);
    assert.equal(await page.title(), 'Tembra usage statistics');
    assert.match(await page.innerText('.header'), /01 Jan 2025 09:00 - 06 Dec 2025 09:00\s+pacs\.example/);
    assert.match(await page.innerText('.footer'), /Tembra usage statistics \| .* \| Zorvik \| www\.zorvik\.example/);
  });

  await t.test('draws nineteen charts, numbered from 0', () => {
    assert.deepEqual(charts.map(found => found.id), [...Array(19).keys()].map(id => `chart-${id}`));
    for (const found of charts)
      assert.equal(found.bars.length, found.ticks.length * found.legend.length, found.title);
  });

  await t.test('bars have the heights that were counted', async () => {
    const expected = {
      'Series viewed per month': perMonth(logs.interaction, event => event[2] === 'SeriesOpened'),
      'Active users per month': Array(12).fill(users.length),
      'Queries per month': Array(12).fill(35),
      'Photodocs performed per month': Array(12).fill(35),
      'Active weblink users per month': Array(12).fill(1),
    };
    for (const [title, counts] of Object.entries(expected)) {
      assert.deepEqual(chart(title).ticks, months, title);
      const largest = Math.max(...counts);
      for (const [i, count] of counts.entries()) {
        const height = await barHeight(page, count, largest);
        assert.ok(Math.abs(chart(title).bars[i].height - height) < 0.01, `${title}, ${months[i]}`);
        assert.ok(Math.abs(chart(title).bars[i].y + height - 270) < 0.01);
        assert.equal(chart(title).labels[i], height < 15 ? '' : String(count));
      }
    }
  });

  await t.test('shares are counted by target', async () => {
    const found = chart('Series shared per month');
    assert.deepEqual(found.legend.map(entry => entry.text), ['Contact', 'Weblink', 'AET']);
    const words = ['contact', 'weblink', 'sendto'];
    const counts = words.map(word => perMonth(logs.audit, event => event[5] === word));
    const largest = Math.max(...counts.flat());
    for (let month = 0; month < 12; ++month)
      for (let series = 0; series < 3; ++series) {
        const height = await barHeight(page, counts[series][month], largest);
        assert.ok(Math.abs(found.bars[month * 3 + series].height - height) < 0.01, `${months[month]}, ${words[series]}`);
      }
  });

  await t.test('legends stand in rows of five above the plot', () => {
    for (const found of charts) {
      const rows = Math.ceil(found.legend.length / 5);
      assert.deepEqual(found.margin, [50, 30 + rows * 15], found.title);
      let x = 0;
      for (const [i, entry] of found.legend.entries()) {
        x = i % 5 === 0 ? 0 : x + 15 + found.legend[i - 1].width;
        assert.ok(Math.abs(entry.place[0] - x) < 0.01, `${found.title}, ${entry.text}`);
        assert.equal(entry.place[1], Math.floor(i / 5) * 15);
        assert.equal(entry.fill, found.bars[i].fill, 'the colour of its bars');
      }
    }
    assert.equal(chart('Photodocs performed per user per month').margin[1], 60);
  });

  await t.test('colours follow the ten in their order', () => {
    const ten = ['#fac73c', '#4d4d4d', '#C0392B', '#9B59B6', '#27AE60', '#2980B9', '#9C640C', '#95A5A6', '#E74C3C', '#5B2C6F'];
    assert.deepEqual(chart('Photodocs performed per user per month').legend.map(entry => entry.fill), ten.slice(0, 7));
  });

  await t.test('a bar tells its series, value and month under the pointer', async () => {
    const bar = page.locator('#chart-4 rect').nth(2);
    await bar.scrollIntoViewIfNeeded();
    await bar.hover();
    const tooltip = page.locator('#chart-4 .tooltip');
    await page.waitForFunction(() => Number(getComputedStyle(document.querySelector('#chart-4 .tooltip')).opacity) > 0.9);
    assert.equal(await tooltip.innerHTML(), `<b>Series</b><br>${chart('Series viewed per month').labels[2]}<br>March 2025`);
    const [barBox, tipBox] = [await bar.boundingBox(), await tooltip.boundingBox()];
    assert.ok(Math.abs(tipBox.x - (barBox.x + barBox.width / 2)) < 3, 'beside the pointer');
    await page.mouse.move(5, 5);
    await page.waitForFunction(() => Number(getComputedStyle(document.querySelector('#chart-4 .tooltip')).opacity) < 0.1);
  });

  await t.test('charts follow the width of the window', async () => {
    for (const width of [500, 2200, 1300]) {
      await page.setViewportSize({ width, height: 900 });
      await page.waitForFunction(() => [...document.querySelectorAll('div[id^="chart-"]')].every(div =>
        Math.abs(Number(div.querySelector('svg').getAttribute('width')) - div.clientWidth) <= 1));
      const sizes = await page.evaluate(() => [...document.querySelectorAll('div[id^="chart-"]')].map(div => {
        const svg = div.querySelector('svg');
        return { container: div.clientWidth, width: Number(svg.getAttribute('width')),
          height: Number(svg.getAttribute('height')), box: svg.getAttribute('viewBox').split(' ').map(Number) };
      }));
      for (const size of sizes) {
        assert.ok(Math.abs(size.width - size.container) <= 1);
        assert.equal(size.height, Math.round(size.width / (size.box[2] / size.box[3])));
      }
    }
    assert.deepEqual(faults, []);
  });

  await t.test('prints every chart whole, on upright and on lying sheets, however wide the window was', async () => {
    const descriptions = await page.evaluate(() => [...document.querySelectorAll('div[id^="chart-"]')].map(div =>
      div.nextElementSibling.innerText.replace(/\s+/g, ' ')));
    for (const [landscape, width] of [[false, 1300], [true, 1300], [true, 2200]]) {
      await page.setViewportSize({ width, height: 900 });
      const sheets = await printed(page, dirname(file), { landscape });
      for (const { words, width, height } of sheets)
        for (const { word, left, right, top, bottom } of words)
          assert.ok(left >= 0 && top >= 0 && right <= width && bottom <= height, `${word} is cut`);
      const texts = sheets.map(({ lines }) => lines.join(' ').replace(/\s+/g, ' '));
      for (const [i, { title, legend, labels }] of charts.entries()) {
        const heading = `${title} ${legend[0].text}`;
        const sheet = texts.filter(text => text.includes(heading));
        assert.equal(sheet.length, 1, `${title} stands once`);
        const begin = sheet[0].indexOf(heading);
        const end = sheet[0].indexOf(descriptions[i], begin);
        assert.ok(end > begin, `${title} stands above its description`);
        const words = sheet[0].slice(begin, end).split(' ');
        // Each bar that is labelled on the screen is labelled on paper, the last month's too.
        const shown = legend.flatMap(entry => entry.text.split(' ')).concat(labels.filter(label => label !== ''));
        for (const word of new Set(shown)) {
          const times = list => list.filter(other => other === word).length;
          assert.ok(times(words) >= times(shown), `${title}: ${word}`);
        }
      }
    }
  });

  await t.test('its files lie beside it', () => {
    for (const name of ['d3.min.js', 'zorvik-icon.png', 'zorvik-slogan.png'])
      assert.ok(statSync(file.replace('usage_report.html', name)).size > 0, name);
  });
});

test('forty users in two years still answer', async t => {
  const below = numbers(3);
  const audit = [];
  const interaction = [];
  for (let month = 0; month < 24; ++month)
    for (let user = 0; user < 40; ++user)
      for (let n = below(4) + 1; n > 0; --n) {
        const date = `${month % 12 + 1}/${n}/${2024 + Math.floor(month / 12)}`;
        audit.push([date, `user${user}`, 'DataAccess', '1.2', `1.3.${n}`]);
        interaction.push([date, `user${user}`, 'PDConfirmDone']);
      }
  const file = guardedPage(folderFor(t), 'usage', { interaction, audit });
  const { page, faults } = await open(t, file);
  const charts = await readCharts(page);
  const found = charts.find(chart => chart.title === 'Series and Studies viewed per user per month');
  assert.equal(found.bars.length, 40 * 24);
  assert.equal(found.margin[1], 30 + 8 * 15);
  const bar = page.locator(`#${found.id} rect`).nth(500);
  await bar.scrollIntoViewIfNeeded();
  await bar.hover({ force: true });
  await page.waitForFunction(id => document.querySelector(`#${id} .tooltip`).textContent.includes('user'), found.id);
  assert.deepEqual(faults, []);
});

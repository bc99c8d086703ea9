// The page in a browser, against the real fxmd and simulated cards: what it shows, what it writes, and what it survives.
// It runs inside of host/tests/stage.py, which gives it a network of its own.
import assert from 'node:assert/strict'
import { readFileSync } from 'node:fs'
import { createRequire } from 'node:module'
import { after, before, test } from 'node:test'
import { parseFilter } from '../src/filter.js'
import { parseId } from '../src/ids.js'
import { openBrowser, openPage, openStage, until } from './stage.mjs'

const SERVER = '02:00:00:00:10:00'
const DEVICE = '02:00:00:00:20:00'
const LOOSE = '02:00:00:00:22:00'
let browser, made, stage

before(async () => {
  browser = await openBrowser()
  made = await openStage()
  stage = made.stage
})
after(async () => {
  await browser?.close()
  await made?.end()
})

// A tab for the length of a test. Nothing wrong may have been seen in it at the end.
async function withPage(options, work) {
  const page = await openPage(browser, made, options)
  try {
    await work(page)
    assert.deepEqual(page.faults, [])
  } finally {
    await page.context().close()
  }
}

const rows = (page) => page.locator('.rows .row').allTextContents()
const mapWords = (page) => page.getAttribute('.canvas', 'aria-label')
const hasRows = (page, count) => until(async () => (await rows(page)).length === count, `${count} rows`)
const row = (page, id, word) => until(async () => (await rows(page)).some((text) => text.includes(id) && text.includes(word)), `${id} is shown as ${word}`)
const outcome = (page, section, words) =>
  until(async () => words.test(await page.locator(`section[aria-label="${section}"] .outcome`).textContent()), `${section}: ${words}`, 120)

test('the filter reads the same words as fxmd', () => {
  const card = {
    kind: 0, is40g: false, number: parseId(SERVER), vlan: 100, health: 2, int: 4, partners: [parseId(DEVICE)], vendor: null, device: null,
  }
  for (const line of readFileSync(new URL('../../common/filter_cases.txt', import.meta.url), 'utf8').trimEnd().split('\n')) {
    if (line[0] === '!') assert.throws(() => parseFilter(line.slice(2)), undefined, line)
    else if (line[0] !== '#') assert.equal(parseFilter(line.slice(2)).matches(card), line[0] === '+', line)
  }
})

test('cards come, get lost and go, and one filter narrows the map and the table', () => withPage({}, async (page) => {
  await hasRows(page, 5)
  await stage.cards({ text: 'fxio 02:00:00:00:40:00 vlan=300' })
  await row(page, '02:00:00:00:40:00', 'well')
  assert.match(await mapWords(page), /^6 cards in 3 groups/)
  await stage.cards({ text: 'silent 02:00:00:00:40:00' })
  await row(page, '02:00:00:00:40:00', 'lost')
  await until(async () => /^1 lost/.test(await page.locator('.tile.lost').textContent()), 'the number of lost cards')
  await page.click('.tile.lost')
  await hasRows(page, 1)
  assert.match(await mapWords(page), /^1 cards in 1 groups/)
  await page.fill('#filter', 'vlan=100 class=fx')
  assert.match(await page.locator('#filter-problem').textContent(), /"fx" is no value of class: fxsv, fxio/)
  await page.fill('#filter', 'vlan=100 class=fxio')
  await hasRows(page, 2)
  await page.fill('#filter', '')
  await page.click('text=by server')
  await until(async () => /^6 cards in 3 groups/.test(await mapWords(page)), 'two servers and the rest')
  // Cells are clicked where they are drawn: the first one is that of the first server.
  await page.click('canvas', { position: { x: 10, y: 25 } })
  await page.waitForSelector(`aside[aria-label="Card ${SERVER}"]`)
  await page.click(`aside >> text=${DEVICE}`)
  await page.waitForSelector(`aside[aria-label="Card ${DEVICE}"]`)
  await page.goBack()
  await page.waitForSelector(`aside[aria-label="Card ${SERVER}"]`)
  await stage.cards({ text: 'remove 02:00:00:00:40:00' })
  await page.goto(`${made.url}#card=02:00:00:00:40:00`)
  await page.click('aside >> text=Delete')
  assert.match(await page.locator('dialog .target').textContent(), /^02:00:00:00:40:00 \(FXIO 1\/10G, vlan 300\)$/)
  await page.click('dialog button.danger')
  await hasRows(page, 5)
}))

test('a cable that is pulled is on the page, and so are its channels', () => withPage({ hash: `#card=${LOOSE}` }, async (page) => {
  await hasRows(page, 5)
  await stage.cable({ port: 1, up: false })
  await until(async () => /port 1 fxm1 NO CARRIER since/.test(await page.locator('.ports').textContent()), 'the port without carrier')
  await row(page, LOOSE, 'degraded')
  await until(async () => /channels down: p1m0/.test(await page.locator('aside .problem').first().textContent()), 'the reason')
  await stage.cable({ port: 1, up: true })
  await row(page, LOOSE, 'well')
  assert.match(await page.locator('.events').textContent(), /channels\.p1m0 up\u2192down/)
}))

test('registers are read and written by name, and only after the question', () => withPage({ hash: `#card=${SERVER}` }, async (page) => {
  const registers = page.locator('section[aria-label="Registers"]')
  await registers.getByLabel('Register').fill('eeprom.locktype')
  await registers.getByText('Read', { exact: true }).click()
  await until(async () => /0x520ceeprom\.locktype0x0000000\dtype (bit|ID) lock/.test(await registers.locator('table').textContent()), 'the register with its field in words')
  await registers.getByLabel('Register').fill('0x1000')
  await registers.getByLabel('Value').fill('0xcafe')
  for (const agreed of [false, true]) {
    await registers.getByText('Write', { exact: true }).click()
    await page.waitForSelector('dialog[open]')
    assert.match(await page.locator('dialog').textContent(), /0x1000: 0x00000000 \u2192 0x0000cafe/)
    if (agreed) await page.click('dialog button.danger')
    else await page.keyboard.press('Escape')
    if (agreed) await outcome(page, 'Registers', /0x0000cafe, verified/)
    else await until(async () => !(await registers.getByText('Write', { exact: true }).isDisabled()), 'the question is answered')
    assert.equal((await stage.get({ path: `/v1/cards/${SERVER}/registers/0x1000` })).value, agreed ? 0xcafe : 0)
  }
  await registers.getByLabel('Register').fill('0x1001')
  await registers.getByText('Read', { exact: true }).click()
  await outcome(page, 'Registers', /multiple of 4/)
  page.faults.splice(0) // the browser reports the refusal
}))

test('an EEPROM is dumped and restored with a bar, and a reset wants its VLAN typed', () => withPage({ hash: `#card=${LOOSE}` }, async (page) => {
  const save = async (name) => {
    const [download] = await Promise.all([page.waitForEvent('download', { timeout: 120000 }), page.getByText(name).click()])
    return readFileSync(await download.path())
  }
  const bar = page.locator('.job progress').first()
  // The page notes each change itself: on a busy machine a look from outside comes too late.
  await page.evaluate(() => {
    window.shown = []
    new MutationObserver(() => window.shown.push(...[...document.querySelectorAll('.job progress')].map((bar) => bar.value)))
      .observe(document.body, { subtree: true, childList: true, attributes: true })
  })
  const image = await save('Dump to a file')
  await outcome(page, 'EEPROM', /^512 words read and saved\.$/)
  await until(async () => (await bar.evaluate((element) => element.value)) === 100, 'the bar is full')
  const shown = await page.evaluate(() => window.shown)
  assert.ok(shown.some((value) => value > 0 && value < 100), `the bar moved: ${shown}`)
  image.writeUInt32LE(0x12345678, 0x40)
  image.writeUInt32LE(0x9abcdef0, 0x7fc)
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), page.getByText('Restore from a file').click()])
  await chooser.setFiles({ name: 'good.bin', mimeType: 'application/octet-stream', buffer: image })
  await page.waitForSelector('dialog[open]', { timeout: 120000 })
  assert.match(await page.locator('dialog').textContent(), /2 of 512 words differ from good\.bin/)
  const backup = page.waitForEvent('download', { timeout: 120000 })
  await page.click('dialog button.danger')
  assert.notDeepEqual(readFileSync(await (await backup).path()), image)
  await outcome(page, 'EEPROM', /^Done: 2 words written, 0 left\.$/)
  assert.deepEqual(await save('Dump to a file'), image)

  await page.getByText('Reset', { exact: true }).click()
  await page.waitForSelector('dialog[open]')
  assert.match(await page.locator('dialog').textContent(), /every card that listens on vlan 200: 2 cards/)
  await page.fill('dialog input', '100')
  assert.ok(await page.isDisabled('dialog button.danger'))
  await page.fill('dialog input', '200')
  await page.click('dialog button.danger')
  await outcome(page, 'Actions', /has been sent/)
}))

test('a job is cancelled, monitoring stops and begins, the table is sorted and the list of events held', () => withPage({ role: 'admin' }, async (page) => {
  await hasRows(page, 5)
  const first = async () => (await rows(page))[0]
  await page.locator('.row.head').getByText('VLAN').click()
  await page.locator('.row.head').getByText('VLAN').click()
  await until(async () => /vlan|200/.test(await first()) && (await page.locator('[aria-sort=descending]').textContent()).startsWith('VLAN'), 'the highest VLAN first')
  await page.getByText('Hold', { exact: true }).click()
  const shown = await page.locator('.events .event').count()
  await page.click(`.rows code >> text=${SERVER}`)
  await page.getByText('Dump to a file').click()
  await page.locator('.job').getByText('Cancel').first().click()
  await outcome(page, 'EEPROM', /job \d+ was cancelled/)
  // The lock of the EEPROM was released although its dump was cancelled, and an admin may take it from anybody.
  assert.equal((await stage.get({ path: `/v1/cards/${SERVER}/registers/eeprom.lock` })).value, 0)
  await page.getByText('Unlock EEPROM').click()
  await page.click('dialog button.danger')
  await outcome(page, 'Actions', /The lock is free/)
  await page.getByText('Stop monitoring', { exact: true }).click()
  assert.match(await page.locator('dialog .target').textContent(), /^02:00:00:00:10:00 \(FXSV 40G, vlan 100\)$/)
  await page.click('dialog button.danger')
  await row(page, SERVER, 'unmonitored')
  await page.click('aside >> [aria-label=Close]')
  await until(async () => /newer/.test(await page.locator('.events .bar').textContent()), 'newer events are counted')
  assert.equal(await page.locator('.events .event').count(), shown)
  await page.getByText('Go on', { exact: true }).click()
  await until(async () => /well\u2192unmonitored/.test(await page.locator('.events .scroller').textContent()), 'the held events are there')
  await page.click(`.rows code >> text=${SERVER}`)
  await page.getByText('Monitor again').click()
  await row(page, SERVER, 'well')
}))

test('who may only view is shown no button that writes, and without a token the page asks for one', async () => {
  await withPage({ role: null }, async (page) => {
    await page.getByLabel('Token').fill('not the right one')
    await page.getByText('Open').click()
    await until(async () => /Token/.test(await page.locator('main').textContent()), 'the question again')
    await page.getByLabel('Token').fill(made.tokens.view)
    await page.getByText('Open').click()
    await hasRows(page, 5)
    await page.click(`.rows code >> text=${SERVER}`)
    await page.waitForSelector('section[aria-label="Registers"]')
    await page.getByText('Read all that have a name').click()
    await page.waitForSelector('.registers tbody tr:nth-child(5)')
    const buttons = await page.locator('aside button:not(.link)').allTextContents()
    assert.deepEqual(buttons, ['\u2715', 'Read', 'Read all that have a name'])
    page.faults.splice(0) // the browser reports both refusals
  })
  await withPage({ role: 'operate', hash: `#card=${SERVER}` }, async (page) => {
    await page.waitForSelector('section[aria-label="Actions"]')
    assert.ok(!(await page.locator('aside').textContent()).includes('Unlock EEPROM'))
  })
})

test('a restart of fxmd is survived without a reload and without a missed or doubled event', () => withPage({}, async (page) => {
  await hasRows(page, 5)
  await page.evaluate(() => { window.same = true })
  const numbers = () => page.evaluate(() => fxm.fabric.events.map(({ seq }) => seq).filter(Boolean))
  const written = async () => (await stage.get({ path: '/v1/history?after_seq=0&limit=10000' })).events.map(({ seq }) => seq)
  const allWritten = () => until(async () => (await written()).at(-1) === (await numbers()).at(-1), 'all events are in the history')
  for (const kill of [false, true]) {
    await stage.cards({ text: `set ${DEVICE} int=0${kill ? 2 : 1}` })
    await row(page, DEVICE, 'error')
    const boot = await page.evaluate(() => fxm.fabric.boot)
    // The history writes once in a second; what is younger than that is lost with a kill.
    if (kill) await allWritten()
    await stage.end_daemon({ kill })
    await stage.cards({ text: `set ${DEVICE} int=00` })
    await stage.start_daemon()
    await until(() => page.evaluate((old) => fxm.fabric.boot !== old && fxm.fabric.listed, boot), 'the page has found the new fxmd')
    await row(page, DEVICE, 'well')
    await stage.cards({ text: `set ${LOOSE} int=04` })
    await row(page, LOOSE, 'error')
    await stage.cards({ text: `set ${LOOSE} int=00` })
    await row(page, LOOSE, 'well')
    await allWritten()
    const seen = await numbers()
    assert.deepEqual(seen, (await written()).filter((seq) => seq >= seen[0]), 'each event once, in order')
    assert.match(await page.locator('.events').textContent(), /fxmd has been started again/)
  }
  assert.ok(await page.evaluate(() => window.same))
}))

test('the page is for everybody: dark and light, the keyboard alone, 400 px', async () => {
  const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8')
  // The colours are the same at each width, and the widths in each scheme.
  for (const [colorScheme, viewport] of [['light', { width: 1400, height: 900 }], ['dark', { width: 400, height: 800 }]]) {
    await withPage({ role: 'admin', colorScheme, viewport, bypassCSP: true, reducedMotion: 'reduce', hash: '#filter=vlan%3D100' }, async (page) => {
      const scan = async (what) => {
        const { violations } = await page.evaluate(() => axe.run(document, { resultTypes: ['violations'] }))
        const found = violations.filter(({ impact }) => impact === 'serious' || impact === 'critical')
        assert.deepEqual(found.map(({ id, nodes }) => [id, nodes.slice(0, 3).map(({ html }) => html)]), [], `${what}, ${colorScheme}, ${viewport.width} px`)
        assert.ok(await page.evaluate(() => document.scrollingElement.scrollWidth <= innerWidth), `${what}: no wider than the window`)
      }
      await hasRows(page, 3)
      await page.evaluate(axe)
      await scan('the fabric')
      await page.locator('.rows .row').first().click()
      await page.waitForSelector('section[aria-label="Registers"]')
      await page.getByText('Read all that have a name').click()
      await page.waitForSelector('.registers tbody tr:nth-child(5)')
      await scan('a card')
      await page.getByText('Reset', { exact: true }).click()
      await page.waitForSelector('dialog[open]')
      await scan('a question')
    })
  }
  await withPage({ role: 'operate' }, async (page) => {
    const { keyboard } = page
    const focused = (selector) => page.evaluate((wanted) => document.activeElement?.matches(wanted), selector)
    const tabTo = async (selector) => {
      await page.waitForSelector(selector)
      for (let n = 0; n < 60 && !(await focused(selector)); ++n) await keyboard.press('Tab')
      assert.ok(await focused(selector), `Tab reaches ${selector}`)
    }
    await hasRows(page, 5)
    await keyboard.press('/')
    await keyboard.type('class=fxio')
    await hasRows(page, 3)
    await tabTo('.canvas')
    await keyboard.press('ArrowRight')
    await keyboard.press('ArrowRight')
    await keyboard.press('Enter')
    await page.waitForSelector('aside')
    await keyboard.press('Escape')
    await page.waitForSelector('aside', { state: 'detached' })
    await until(() => focused('.canvas'), 'the focus goes back')
    await tabTo('.table .scroller')
    await keyboard.press('End')
    await keyboard.press('Enter')
    await page.waitForSelector(`aside[aria-label="Card ${LOOSE}"]`)
    await tabTo('section[aria-label="Actions"] input')
    await keyboard.type('201')
    await keyboard.press('Enter')
    await page.waitForSelector('dialog[open]')
    await tabTo('dialog button.danger')
    await keyboard.press('Enter')
    await outcome(page, 'Actions', /vlan 200 \u2192 201/)
    assert.equal((await stage.get({ path: `/v1/cards/${LOOSE}` })).vlan, 201)
  })
})

test('a browser may run this page and nothing else', () => withPage({}, async (page) => {
  const policy = (await page.request.get(made.url)).headers()['content-security-policy']
  assert.match(policy, /^default-src 'self'; script-src 'sha256-[^']+'; style-src 'sha256-[^']+'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'$/)
  assert.equal((await page.request.get(`${made.url}v1/status`)).headers()['content-security-policy'], "default-src 'self'")
  await hasRows(page, 5)
  assert.deepEqual(page.faults, [])
  await page.evaluate(() => {
    const script = document.createElement('script')
    script.textContent = 'window.foreign = true'
    document.body.append(script)
    const image = new Image()
    image.src = 'data:image/gif;base64,R0lGODlhAQABAAAAACwAAAAAAQABAAA='
    document.body.append(image)
  })
  await until(() => page.faults.filter((text) => /Content Security Policy/.test(text)).length >= 2, 'the browser refuses both')
  assert.equal(await page.evaluate(() => window.foreign), undefined)
  page.faults.splice(0)
}))

// The last one: its cards stay.
test('a tab that stood still is told of the gap and lists again', () => withPage({}, async (page) => {
  await stage.cards({ text: 'fxio 02:00:00:01:00:00 count=4000 ports=0 vlan=500' })
  await until(() => page.evaluate(() => fxm.fabric.cards.size === 4005), 'all cards are on the page', 60)
  const debug = await page.context().newCDPSession(page)
  await debug.send('Debugger.enable')
  await debug.send('Debugger.pause')
  const { seq } = await stage.get({ path: '/v1/status' })
  // More than the ring of fxmd and all buffers on the way hold.
  for (let n = 1; (await stage.get({ path: '/v1/status' })).seq < seq + 140000; ++n) {
    await stage.cards({ text: `set all int=0${n % 8}` })
    await stage.cards({ text: 'announce all' })
  }
  await stage.cards({ text: 'set all int=00' })
  await stage.cards({ text: 'announce all' })
  await stage.cards({ text: `set ${LOOSE} int=04` })
  await debug.send('Debugger.resume')
  await debug.detach()
  await row(page, LOOSE, 'error')
  await until(async () => (await page.evaluate(() => fxm.fabric.seq)) === (await stage.get({ path: '/v1/status' })).seq, 'the page has all events', 60)
  assert.ok(await page.evaluate(() => fxm.fabric.gaps > 0), 'the gap was told')
  const shown = await page.evaluate(() => [...fxm.fabric.cards.values()].filter(({ int }) => int !== 0).map(({ id }) => id))
  assert.deepEqual(shown, [LOOSE])
}))

// The page of a room in a browser: all sites, one of them, and a site that falls silent.
import assert from 'node:assert/strict'
import { after, before, test } from 'node:test'
import { openBrowser, openPage, openStage, until } from './stage.mjs'

const DEVICE = '02:00:00:00:20:00'
const SERVER = '02:00:00:00:10:00'
let browser, made

before(async () => {
  browser = await openBrowser()
  made = await openStage({ fleet: true })
})
after(async () => {
  await browser?.close()
  await made?.end()
})

test('a room shows its sites, opens one, writes to it, and shows that it is silent', async () => {
  const page = await openPage(browser, made)
  const text = (selector) => page.locator(selector).allTextContents()
  const has = (selector, words, seconds = 30) => until(async () => words.test((await text(selector)).join(' | ')), `${selector}: ${words}`, seconds)
  await has('.sites tbody tr', /north.*live.*5/)
  await has('.tile.well', /5/)
  await made.stage.cards({ text: `set ${DEVICE} vlan=300` })
  await has('.events .event', /north\/02:00:00:00:20:00.*vlan 100\u2192300/)
  await page.locator('.events .event', { hasText: /vlan 100\u2192300/ }).getByRole('button').click()
  await has('.head', /all sites.*north.*live/)
  await has('.drawer', /VLAN\s*300/)
  await until(async () => (await text('.rows .row')).length === 5, 'the cards of north')
  await made.stage.cards({ text: `set ${DEVICE} vlan=400` })
  await has('.rows .row', /02:00:00:00:20:00.*400/)
  await has('.drawer', /VLAN\s*400/)
  // A write goes to the site, and asks before.
  await page.evaluate((card) => { location.hash = `#site=north&card=${card}` }, SERVER)
  await page.locator('.drawer input[list="register-names"]').fill('0x1000')
  await page.locator('.drawer input[placeholder="0xcafe"]').fill('0x7')
  await page.locator('.drawer section[aria-label="Registers"]').getByRole('button', { name: 'Write' }).click()
  await page.locator('dialog[open]').getByRole('button', { name: 'Write' }).click()
  await has('section[aria-label="Registers"] .outcome', /0x00000000 \u2192 0x00000007/)
  assert.equal((await made.stage.get({ path: `/v1/cards/${SERVER}/registers/0x1000` })).value, 7)
  await page.keyboard.press('Escape')
  await made.stage.pause_daemon({ stop: true })
  await has('.tile.silent', /5/, 40)
  await has('.warning', /north has been silent/)
  await has('.rows .row', /silent/)
  await page.getByRole('link', { name: 'all sites' }).click()
  await has('.sites tbody tr', /north.*silent/)
  await has('.tile.well', /0/)
  await made.stage.pause_daemon({ stop: false })
  await has('.sites tbody tr', /north.*live/)
  assert.deepEqual(page.faults.filter((fault) => !/502|Failed to load/.test(fault)), [])
})

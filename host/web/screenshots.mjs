// Takes the pictures of the page in docs/screenshots: a fabric of 234 cards in four states, and one of 65,536. Started by
// scripts/screenshots, inside of host/tests/stage.py.
import { mkdirSync } from 'node:fs'
import { dirname, join } from 'node:path'
import { fileURLToPath } from 'node:url'
import { openBrowser, openPage, openStage, until } from './tests/stage.mjs'

const folder = join(dirname(fileURLToPath(import.meta.url)), '../../docs/screenshots')
const CURVES = 200 // s until the curves have a few minutes to show

const id = (number) => number.toString(16).padStart(12, '0').replace(/..(?=.)/g, '$&:')
const serverId = (n) => id(0x020000100000 + 2 * n)
const deviceId = (n, i) => id(0x020000200000 + 64 * n + 2 * i)

// Servers with their devices. Each command announces its cards, so a large fabric is made of few commands for a server.
async function addServers(stage, servers, devices, vlans, connect) {
  const kinds = ['vendor=8086 device=1572 class=020000', 'vendor=10de device=1eb8 class=030200', 'vendor=144d device=a808 class=010802']
  for (let n = 0; n < servers; ++n) {
    const vlan = 100 + 100 * (n % vlans)
    const downs = Array.from({ length: connect }, (_, i) => `down${i}=${deviceId(n, i)}`).join(' ')
    await stage.cards({ text: `fxsv ${serverId(n)} gen=40g vlan=${vlan} ${downs}` })
    await stage.cards({ text: `fxio ${deviceId(n, 0)} count=${devices} vlan=${vlan} server=${serverId(n)} connected=yes ${kinds[n % 3]}` })
  }
}

const wait = (seconds) => new Promise((resume) => setTimeout(resume, 1000 * seconds))

async function take(page, name) {
  await page.mouse.move(0, 0)
  await wait(1)
  await page.screenshot({ path: join(folder, `${name}.png`) })
  console.log(`docs/screenshots/${name}.png`)
}

const all = (page, count) => until(() => page.evaluate((wanted) => fxm.fabric.listed && fxm.fabric.cards.size === wanted, count), `${count} cards`, 120)

async function scenes(browser) {
  const made = await openStage({ cards: [], period: 500 })
  const { stage } = made
  await addServers(stage, 26, 8, 6, 8)
  const page = await openPage(browser, made, { role: 'operate', colorScheme: 'light' })
  await all(page, 26 * 9)
  await page.getByText('15 min').click()
  const begin = Date.now()
  while (Date.now() < begin + 1000 * CURVES) {
    const n = Math.floor(Math.random() * 26)
    for (let i = 0; i < 4; ++i) await stage.get({ path: `/v1/cards/${deviceId(n, i)}/registers/0x0` })
    await stage.cards({ text: `set ${deviceId(n, 0)} flow=${n.toString(16).padStart(2, '0')}` })
    await wait(1)
    if (process.stdout.isTTY) process.stdout.write(`\r${Math.ceil(CURVES - (Date.now() - begin) / 1000)} s until the curves have something to show `)
  }
  if (process.stdout.isTTY) process.stdout.write('\n')
  await take(page, 'healthy')

  for (const [n, bits] of [[3, '04'], [11, '40'], [17, '04']]) await stage.cards({ text: `set ${deviceId(n, 2)} int=${bits}` })
  await stage.cards({ text: `silent ${deviceId(8, 5)}` })
  await until(() => page.evaluate(() => fxm.fabric.counts[2] === 3 && fxm.fabric.counts[3] === 1), 'three errors and a lost card')
  await page.locator('.row.head').getByText('Health').click()
  await take(page, 'error')

  await stage.cards({ text: `speak ${deviceId(8, 5)}` })
  await stage.cards({ text: 'set all int=00' })
  await page.locator('.row.head').getByText('Card').click()
  await stage.cable({ port: 1, up: false })
  await until(() => page.evaluate(() => fxm.fabric.counts[1] > 200), 'the cards have lost a link')
  await page.emulateMedia({ colorScheme: 'dark' })
  await page.click('text=by server')
  await take(page, 'link-lost')
  await stage.cable({ port: 1, up: true })

  await page.emulateMedia({ colorScheme: 'light' })
  await until(() => page.evaluate(() => fxm.fabric.counts[0] === 234), 'all cards are well')
  await page.click(`.rows code >> text=${serverId(1)}`)
  await page.getByText('Read all that have a name').click()
  await page.waitForSelector('.registers tbody tr:nth-child(5)')
  await page.getByText('Dump to a file').click()
  await until(async () => (await page.locator('.job progress').first().evaluate((bar) => bar.value)) > 30, 'the dump is on its way')
  await page.locator('section[aria-label="Registers"]').scrollIntoViewIfNeeded()
  await page.locator('aside').evaluate((drawer) => { drawer.scrollTop = drawer.scrollHeight * 0.42 })
  await take(page, 'card')
  await page.context().close()
  await made.end()
}

async function large(browser) {
  const made = await openStage({ cards: [], period: 2000 })
  await addServers(made.stage, 4096, 15, 8, 15)
  const page = await openPage(browser, made, { colorScheme: 'light', hash: '#map=vlan' })
  await all(page, 65536)
  for (let n = 5; n < 4096; n += 97) await made.stage.cards({ text: `set ${deviceId(n, n % 15)} int=04` })
  await until(() => page.evaluate(() => fxm.fabric.counts[2] > 40), 'cards in error')
  await take(page, 'large')
  await page.context().close()
  await made.end()
}

mkdirSync(folder, { recursive: true })
const browser = await openBrowser()
try {
  await scenes(browser)
  await large(browser)
} finally {
  await browser.close()
}

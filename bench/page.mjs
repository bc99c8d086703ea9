// Measures the page in headless Chromium, against the real fxmd and simulated cards:
//
//     python3 host/tests/stage.py node bench/page.mjs [small] [large] [--minutes N]
//
// Each line ends with its limit; the exit code is 1 if one is missed. `large` has 65,536 cards and N minutes of events
// (1; the limits must hold for 10). The browser, fxmd and the simulator share the machine, so run it on a quiet one.
import { FIELDS } from '../host/web/src/fabric.js'
import { openBrowser, openPage, openStage, until } from '../host/web/tests/stage.mjs'

const SERVERS = 4096
const DEVICES = 15 // of each server
const VLANS = 64
const CARDS = SERVERS * (DEVICES + 1)
let missed = 0

function report(what, value, unit, limit) {
  const good = value <= limit
  missed += good ? 0 : 1
  console.log(`${what.padEnd(66)} ${value.toFixed(1).padStart(9)} ${unit.padEnd(3)} limit ${limit}${good ? '' : '  MISSED'}`)
}

function reportBoth(what, times, limit) {
  times.sort((a, b) => a - b)
  report(`${what}: median`, times[times.length >> 1], 'ms', limit)
  report('the same, the slowest', times.at(-1), 'ms', limit)
}

const id = (number) => number.toString(16).padStart(12, '0').replace(/..(?=.)/g, '$&:')
const serverId = (n) => id(0x020010000000 + 2 * n)
const deviceId = (n, i = 0) => id(0x020020000000 + 32 * n + 2 * i)

// The milliseconds from `act`, which makes a card, to its row in the table.
async function latency(page, card, act) {
  await page.fill('#filter', `id=${card}`)
  await page.waitForFunction(() => document.querySelectorAll('.rows .row').length === 0)
  const shown = page.evaluate((wanted) => new Promise((resolve) => {
    const look = () => (document.querySelector('.rows .row')?.textContent.includes(wanted) ? resolve(Date.now()) : requestAnimationFrame(look))
    look()
  }), card)
  const began = Date.now()
  await act()
  return (await shown) - began
}

async function small(browser) {
  const made = await openStage()
  const page = await openPage(browser, made)
  await until(() => page.evaluate(() => fxm.fabric.cards.size === 5), 'all cards are on the page')
  await new Promise((resume) => setTimeout(resume, 2000)) // a new window is work of the browser's own
  const times = []
  for (let n = 0; n < 20; ++n) {
    const card = id(0x020000003000 + 2 * n)
    times.push(await latency(page, card, () => made.stage.cards({ text: `fxio ${card} vlan=300` })))
  }
  reportBoth('a new card is on the page, 20 times', times, 1000)
  await page.context().close()
  await made.end()
}

// A drawing that the user asks for, from a click or from text in the filter to the frame behind it.
const redraw = (page, act) =>
  page.evaluate(async ({ within, text, filter }) => {
    const frame = () => new Promise(requestAnimationFrame)
    await frame()
    const began = performance.now()
    if (within) {
      [...document.querySelectorAll(within)].find((one) => one.textContent.startsWith(text)).click()
    } else {
      const input = document.getElementById('filter')
      input.value = filter
      input.dispatchEvent(new Event('input', { bubbles: true }))
    }
    await new Promise((resume) => setTimeout(resume, 0))
    await frame()
    return performance.now() - began
  }, act)

const setFilter = (filter) => ({ filter })
const click = (within, text) => ({ within, text })

// Scrolls through the whole table, and looks before each frame is drawn at what it will show.
const scrollTable = (page) =>
  page.evaluate(async () => {
    const scroller = document.querySelector('.table .scroller')
    const end = scroller.scrollHeight - scroller.clientHeight
    const seen = { frames: 0, blank: 0, longest: 0 }
    let last = performance.now()
    for (let step = 0; step <= 300; ++step) {
      scroller.scrollTop = (end * step) / 300
      await new Promise(requestAnimationFrame)
      const box = scroller.getBoundingClientRect()
      const rows = [...scroller.querySelectorAll('.rows .row')].map((row) => [row.getBoundingClientRect(), row.textContent])
      const first = Math.min(...rows.map(([row]) => row.top))
      const bottom = Math.max(...rows.map(([row]) => row.bottom))
      seen.frames += 1
      seen.blank += rows.some(([, text]) => text.length < 20) || first > box.top + 29 || bottom < box.bottom - 16 ? 1 : 0
      const now = performance.now()
      seen.longest = Math.max(seen.longest, now - last)
      last = now
    }
    scroller.scrollTop = 0
    return seen
  })

const heapMb = (page) => page.evaluate(() => performance.memory.usedJSHeapSize / 1e6)
const longestDrawing = (page) => page.evaluate(() => Math.max(0, ...fxm.drawings.splice(0)))

async function large(browser, minutes) {
  const made = await openStage({ cards: [], period: 1000 })
  for (let n = 0; n < SERVERS; ++n) {
    const vlan = 100 + (n % VLANS)
    await made.stage.cards({ text: `fxsv ${serverId(n)} gen=40g ports=0 vlan=${vlan} down0=${deviceId(n)}` })
    await made.stage.cards({ text: `fxio ${deviceId(n)} count=${DEVICES} ports=0 vlan=${vlan} server=${serverId(n)} connected=yes` })
  }
  await until(async () => (await made.stage.get({ path: '/v1/status' })).cards.well === CARDS, 'all cards are well', 120)
  // In a window that is open already.
  const page = await openPage(browser, made)
  const opened = []
  for (let n = 0; n < 5; ++n) {
    await new Promise((resume) => setTimeout(resume, 2000))
    await page.reload()
    opened.push(await page.evaluate(() => new Promise((resolve) => {
      const look = () => (fxm.fabric.listed && document.querySelector('.rows .row') ? requestAnimationFrame(() => resolve(performance.now())) : setTimeout(look, 5))
      look()
    })))
  }
  const bare = await page.evaluate(async (path) => {
    const began = performance.now()
    const answer = await fetch(path, { headers: { Accept: 'application/x-ndjson', Authorization: `Bearer ${sessionStorage.getItem('fxm-token')}` } })
    const rows = (await answer.text()).trimEnd().split('\n').map((line) => JSON.parse(line))
    return rows.length > 0 && performance.now() - began
  }, `/v1/cards?rows=true&fields=${FIELDS}`)
  console.log(`${'the same list, fetched and parsed by a bare script'.padEnd(66)} ${bare.toFixed(1).padStart(9)} ms`)
  if ((await page.evaluate(() => fxm.fabric.cards.size)) !== CARDS) throw new Error('the page does not have all cards')
  reportBoth(`${CARDS} cards: from the address to a page with all, 5 times`, opened, 3000)
  await longestDrawing(page)
  for (const [what, there, back] of [
    ['map by server', click('.map button', 'by server'), click('.map button', 'by VLAN')],
    ['a filter that leaves 1,024 cards, and none', setFilter('vlan=107'), setFilter('')],
    ['sorted by partners, and by card', click('.row.head button', 'Partners'), click('.row.head button', 'Card')],
  ]) {
    const times = []
    for (let n = 0; n < 10; ++n) times.push(await redraw(page, n % 2 === 0 ? there : back))
    reportBoth(`${what}, 10 redraws`, times, 100)
  }
  const seen = await scrollTable(page)
  report(`scrolling through the table in ${seen.frames} frames: with blank rows`, seen.blank, '', 0)
  report('the same, the longest frame', seen.longest, 'ms', 100)

  let heap = await heapMb(page)
  await longestDrawing(page)
  const drawings = []
  let events = 0
  const end = Date.now() + minutes * 60000
  while (Date.now() < end) {
    const n = events % SERVERS
    await made.stage.cards({ text: `set ${deviceId(n)} int=${events % 3 === 0 ? '04' : '00'} vlan=${100 + (events % VLANS)}` })
    await made.stage.cards({ text: `announce ${deviceId(n)}` })
    events += 1
    if (events % 25 === 0) {
      await new Promise((resume) => setTimeout(resume, 500))
      heap = Math.max(heap, await heapMb(page))
      drawings.push(await longestDrawing(page))
      if (process.stdout.isTTY) process.stdout.write(`\r${Math.ceil((end - Date.now()) / 1000)} s left `)
    }
  }
  drawings.sort((a, b) => a - b)
  const known = () => page.evaluate(() => fxm.fabric.seq)
  await until(async () => (await made.stage.get({ path: '/v1/status' })).seq === (await known()), 'the page has all events')
  report(`${events} changes in ${minutes} min: the longest of all drawings`, drawings.at(-1), 'ms', 100)
  report('the same, the median of the longest in each half second', drawings[drawings.length >> 1], 'ms', 50)
  report('the heap at its largest', heap, 'MB', 150)
  if (page.faults.length > 0) throw new Error(`the console: ${page.faults.slice(0, 5).join('; ')}`)
  await page.context().close()
  await made.end()
}

const words = process.argv.slice(2)
const at = words.indexOf('--minutes')
const minutes = at >= 0 ? Number(words.splice(at, 2)[1]) : 1
const wanted = words.length > 0 ? words : ['small', 'large']
if (!(minutes > 0) || wanted.some((name) => name !== 'small' && name !== 'large')) {
  console.error('usage: node bench/page.mjs [small] [large] [--minutes N]')
  process.exit(2)
}
const browser = await openBrowser()
try {
  if (wanted.includes('small')) await small(browser)
  if (wanted.includes('large')) await large(browser, minutes)
} finally {
  await browser.close()
}
process.exit(missed > 0 ? 1 : 0)

// Parts of the page without a browser: the copy of the fabric against every order in which lists, events, gaps and
// restarts can come, and the places of cells and rows.
import assert from 'node:assert/strict'
import { test } from 'node:test'
import { FIELDS, Fabric } from '../src/fabric.js'
import { Feed } from '../src/feed.js'
import { formatId, numberOfId, parseId, parseNumber } from '../src/ids.js'
import { cardAt, eachCell, findCell, groupAt, layOut, neighbour } from '../src/layout.js'
import { eventWords } from '../src/words.js'

// Numbers that are the same in each run.
function dice(seed) {
  let state = seed
  return (sides) => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0
    return Math.floor((state / 2 ** 32) * sides)
  }
}

// fxmd as the page sees it: cards, a ring of few events, a history, and answers that come in pieces.
class Daemon {
  constructor(roll) {
    this.roll = roll
    this.cards = new Map()
    this.ring = []
    this.past = []
    this.boot = 'a'
    this.seq = 0
    this.streams = new Set()
  }

  append(event) {
    this.seq += 1
    const whole = { schema: 'fxm/1', seq: this.seq, time_ms: this.seq, int_seen: 0, now: null, ...event }
    this.ring.push(whole)
    this.past.push(whole)
    if (this.ring.length > 8) this.ring.shift()
    for (const stream of this.streams) stream.wake()
  }

  change() {
    const id = formatId(0x020000000000 + 2 * this.roll(6))
    const card = this.cards.get(id)
    const base = { type: 'change', card: id, class: 'fxio' }
    if (!card) {
      const made = {
        id, class: 'fxio', generation: '1/10G', vlan: this.roll(4), health: 'well', int_vector: 0, partners: [], down_port_count: null,
        vendor: '8086', device: '1572', updated_ms: 0, channels: { p0m0: 'up', p0m1: null, p1m0: null, p1m1: null },
      }
      this.cards.set(id, made)
      this.append({ ...base, kinds: ['new'], changes: {}, now: structuredClone(made) })
    } else if (this.roll(6) === 0) {
      this.cards.delete(id)
      this.append({ ...base, kinds: ['delete'], changes: {} })
    } else {
      const int = this.roll(8)
      const health = int ? 'error' : 'well'
      const changes = { int_vector: [card.int_vector, int], ...(health === card.health ? {} : { health: [card.health, health] }) }
      Object.assign(card, { int_vector: int, health })
      this.append({ ...base, kinds: ['error'], changes })
    }
  }

  restart() {
    this.boot += 'a'
    this.seq += 1000 // numbers that a run had reserved
    this.ring = []
    this.start = this.seq
    for (const stream of this.streams) stream.end()
  }

  // A body whose lines come one by one, until whoever asked gives up.
  lines(signal, write) {
    const encoder = new TextEncoder()
    return new Response(new ReadableStream({
      start: (to) => {
        signal.addEventListener('abort', () => to.error(signal.reason))
        write((line) => signal.aborted || to.enqueue(encoder.encode(`${line}\n`)), () => signal.aborted || to.close())
      },
    }))
  }

  answer(path, signal) {
    const url = new URL(path, 'http://fxmd')
    if (url.pathname === '/v1/jobs') return Response.json({ jobs: [] })
    if (url.pathname === '/v1/history') {
      const fit = this.past.filter(({ seq }) => seq > Number(url.searchParams.get('after_seq')))
      const limit = Number(url.searchParams.get('limit'))
      return Response.json({ events: url.searchParams.get('newest') === 'true' ? fit.slice(-limit) : fit.slice(0, limit) })
    }
    if (url.pathname === '/v1/cards') return this.list(signal)
    return this.stream(url.searchParams.get('after'), signal)
  }

  // The cards one by one, as they are at that moment; changes come between.
  list(signal) {
    const position = `${this.boot}.${this.seq}`
    const answer = this.lines(signal, async (put, end) => {
      put(JSON.stringify({ schema: 'fxm/1', fields: FIELDS }))
      for (let number = 0; number < 6; ++number) {
        await turn()
        if (signal.aborted) return
        const card = this.cards.get(formatId(0x020000000000 + 2 * number))
        const line = card && JSON.stringify(FIELDS.map((name) => (name.startsWith('channels.') ? card.channels[name.slice(9)] : card[name])))
        // What is on its way is older than what has been made since.
        for (let n = this.roll(4); n > 0; --n) await turn()
        if (line) put(line)
      }
      end()
    })
    answer.headers.set('Fxm-Position', position)
    return answer
  }

  stream(after, signal) {
    const [boot, seq] = after ? after.split('.') : [this.boot, this.seq]
    const resumed = boot === this.boot
    let cursor = resumed ? Number(seq) : this.start
    return this.lines(signal, (put, close) => {
      let isOpen = true
      const stream = {
        wake: () => {
          const first = this.ring.length > 0 ? this.ring[0].seq : this.seq + 1
          if (cursor + 1 < first) {
            put(JSON.stringify({ type: 'gap', from: cursor + 1, to: first - 1 }))
            cursor = first - 1
          }
          for (const event of this.ring) if (event.seq > cursor) put(JSON.stringify(event))
          cursor = this.seq
        },
        end: () => {
          if (isOpen) close()
          isOpen = false
          this.streams.delete(stream)
        },
      }
      signal.addEventListener('abort', () => stream.end())
      put(JSON.stringify({ type: 'boot', boot: this.boot, seq: cursor, time_ms: 0, resumed }))
      this.streams.add(stream)
      stream.wake()
    })
  }
}

const turn = () => new Promise((resume) => setImmediate(resume))

test('whatever the order of lists, events, gaps and restarts, the page ends with the fabric of fxmd', async () => {
  globalThis.sessionStorage = { getItem: () => null }
  for (let seed = 1; seed <= 60; ++seed) {
    const roll = dice(seed)
    const daemon = new Daemon(roll)
    globalThis.fetch = async (path, { signal }) => daemon.answer(path, signal)
    for (let n = 0; n < 10; ++n) daemon.change()
    const fabric = new Fabric()
    const feed = new Feed(fabric)
    feed.pause = () => turn()
    feed.run()
    for (let step = 0; step < 80; ++step) {
      const what = roll(20)
      if (what === 0) daemon.restart()
      if (what === 1) {
        // A burst that the ring does not hold, while the stream is not looked after.
        const held = [...daemon.streams]
        daemon.streams.clear()
        for (let n = 0; n < 12; ++n) daemon.change()
        for (const stream of held) daemon.streams.add(stream)
        for (const stream of held) stream.wake()
      }
      daemon.change()
      for (let n = roll(4); n > 0; --n) await turn()
    }
    for (let n = 0; n < 2000 && !(feed.state === 'live' && fabric.seq === daemon.seq); ++n) await turn()
    const shown = (cards) => [...cards].map(({ id, int, int_vector, health }) => `${id} ${int ?? int_vector} ${health === 2 || health === 'error'}`).sort()
    assert.deepEqual(shown(fabric.inOrder()), shown(daemon.cards.values()), `seed ${seed}`)
    assert.deepEqual(fabric.inOrder().map(({ number }) => number), [...fabric.cards.values()].map(({ number }) => number).sort((a, b) => a - b))
    assert.equal(fabric.counts.reduce((a, b) => a + b), fabric.cards.size, `seed ${seed}: the sums`)
    const seen = fabric.events.map(({ seq }) => seq).filter(Boolean)
    assert.deepEqual(seen, [...new Set(seen)].sort((a, b) => a - b), `seed ${seed}: no event twice or out of order`)
    feed.pause = () => new Promise(() => {})
    feed.abort.abort()
  }
})

test('every card has one place on the map, where a click and the arrow keys find it', () => {
  const roll = dice(7)
  for (const [servers, devices, width, height, zoom] of [[1, 0, 300, 200, 0], [3, 5, 300, 200, 0], [40, 8, 700, 300, 0], [500, 15, 840, 330, 0], [30, 9, 120, 90, 2]]) {
    const cards = []
    for (let n = 0; n < servers; ++n) cards.push({ id: `s${n}`, number: n, kind: 0, vlan: roll(5), partners: [] })
    for (let n = 0; n < servers * devices; ++n) cards.push({ id: `d${n}`, number: 10000 + n, kind: 1, vlan: roll(5), partners: roll(5) ? [n % servers] : [] })
    for (const mode of ['vlan', 'server']) {
      const layout = layOut(cards, mode, width, height, zoom)
      const seen = new Set()
      eachCell(layout, 0, Infinity, (card, x, y) => {
        seen.add(card)
        assert.ok(x >= 0 && x + layout.size <= Math.max(width, layout.size) && y >= 0 && y + layout.size <= layout.height + 0.5, `${card.id} at ${x},${y}`)
        assert.equal(cardAt(layout, x + layout.size / 2, y + layout.size / 2), card)
      })
      assert.equal(seen.size, cards.length)
      for (const card of [cards[0], cards.at(-1), cards[cards.length >> 1]]) {
        const { x, y } = findCell(layout, card)
        assert.ok(groupAt(layout, x, y).group.members.includes(card))
        // There and back, where there is a way.
        const right = neighbour(layout, card, 'ArrowRight')
        assert.ok(right === card || neighbour(layout, right, 'ArrowLeft') === card)
      }
      if (layout.height > height) assert.equal(layout.size, zoom > 0 ? layout.size : 2, 'only the smallest cells scroll')
      let visible = 0
      eachCell(layout, layout.height / 3, layout.height / 2, () => { visible += 1 })
      assert.ok(visible <= cards.length && (visible > 0 || servers === 1), 'a part of the map is drawn from its part of the cells')
    }
  }
})

test('ids, numbers and events are read and written as fxmctl does', () => {
  for (const text of ['02:00:00:00:10:00', '02-00-00-00-10-00', '0200.0000.1000', '0x020000001000']) assert.equal(parseId(text), 0x020000001000, text)
  for (const text of ['', '02:00:00:00:10', '2:0:0:0:10:0', '02:00:00:00:10-00', '02:00:00:00:10:0g', '0200000010001']) assert.equal(parseId(text), null, text)
  for (const [text, value] of [['0', 0], ['010', 8], ['0x10', 16], ['4294967295', 4294967295], ['4294967296', null], ['08', null], ['-1', null], ['', null], ['1 ', null]])
    assert.equal(parseNumber(text), value, text)
  assert.equal(formatId(numberOfId('0a:ff:09:90:af:01')), '0a:ff:09:90:af:01')
  const event = { type: 'change', card: 'x', class: 'fxio', vlan: 300, health: 'error', int_seen: 4, now: null, kinds: ['error'] }
  assert.equal(eventWords({ ...event, changes: { health: ['well', 'error'], status: [[0], [4]], int_vector: [0, 4], server: [null, 'y'] } }),
    'health well\u2192error int_vector 0\u21924 server none\u2192y (interrupt bits seen: 04)')
  assert.equal(eventWords({ ...event, changes: {}, kinds: ['new', 'update'], int_seen: 0, now: {} }), 'new update FXIO vlan 300 error')
})

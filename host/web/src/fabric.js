// The copy of the fabric that the page shows: what fxmd listed, and what its events changed since.
import { CLASSES, HEALTH } from './filter.js'
import { numberOfId } from './ids.js'

const CHANNELS = ['p0m0', 'p0m1', 'p1m0', 'p1m1']
const MOST_EVENTS = 1000
const MOST_JOBS = 1000

// The members of a card that the page keeps, in the order of the rows of a list.
export const FIELDS = [
  'id', 'class', 'generation', 'vlan', 'health', 'int_vector', 'partners', 'down_port_count', 'vendor', 'device', 'updated_ms',
  ...CHANNELS.map((name) => `channels.${name}`),
]

// A card keeps what the map, the table and the filter need, as numbers where it can. Lists are long, so this and
// setMember() say the same twice: what a row has, and what a change of one member says.
function cardOfRow(row) {
  let up = 0
  let known = 0
  for (let i = 0; i < CHANNELS.length; ++i) {
    const state = row[11 + i]
    if (state === 'up') up |= 1 << i
    if (state !== null) known |= 1 << i
  }
  return {
    id: row[0],
    number: numberOfId(row[0]),
    kind: row[1] === CLASSES[0] ? 0 : 1,
    is40g: row[2] === '40G',
    vlan: row[3],
    health: HEALTH.indexOf(row[4]),
    int: row[5],
    partners: row[6].map(numberOfId),
    downPorts: row[7],
    vendor: row[8],
    device: row[9],
    changed: row[10] ?? 0,
    up,
    known,
    listing: 0, // the last list that had it
  }
}

const rowOf = (document) => FIELDS.map((name) => (name.startsWith('channels.') ? document.channels[name.slice(9)] : document[name]))

function setMember(card, name, value) {
  switch (name) {
    case 'class': card.kind = CLASSES.indexOf(value); break
    case 'generation': card.is40g = value === '40G'; break
    case 'vlan': card.vlan = value; break
    case 'health': card.health = HEALTH.indexOf(value); break
    case 'int_vector': card.int = value; break
    case 'partners': card.partners = value.map(numberOfId); break
    case 'down_port_count': card.downPorts = value; break
    case 'vendor': card.vendor = value; break
    case 'device': card.device = value; break
    default: {
      if (!name.startsWith('channels.')) return
      const bit = 1 << CHANNELS.indexOf(name.slice(9))
      card.up = value === 'up' ? card.up | bit : card.up & ~bit
      card.known = value !== null ? card.known | bit : card.known & ~bit
    }
  }
}

// "P0:2 P1:-": the channels of each port that are up, as fxmctl shows them.
export function channelWords(card) {
  return [0, 1].map((port) => {
    const bits = (mask) => ((mask >> (2 * port)) & 1) + ((mask >> (2 * port + 1)) & 1)
    return `P${port}:${bits(card.up) || (bits(card.known) ? '0' : '-')}`
  }).join(' ')
}

export class Fabric {
  constructor() {
    this.cards = new Map() // by id
    this.jobs = new Map() // by number, as the job or its last event says
    this.events = [] // the newest last
    this.boot = ''
    this.seq = 0 // of the last event seen
    this.gaps = 0 // that fxmd has told
    this.counts = HEALTH.map(() => 0)
    this.listing = 0 // counts the lists
    this.listed = false // a whole list has been seen
    this.listedAt = 0 // the last event in it
    this.version = 0 // rises with each change
    this.listener = () => {}
    this.sorted = []
    this.added = [] // since `sorted` was made
    this.removed = 0
  }

  // In ascending order of their ids; a new array whenever cards have come or gone.
  inOrder() {
    if (this.added.length + this.removed === 0) return this.sorted
    if (this.removed > 0) this.sorted = this.sorted.filter((card) => this.cards.get(card.id) === card)
    // fxmd lists the cards in this order, and a sort of what is sorted is quick.
    const added = this.added.filter((card) => this.cards.get(card.id) === card).sort((a, b) => a.number - b.number)
    const old = this.sorted
    if (added.length > 0) this.sorted = []
    let at = 0
    for (const card of added) {
      while (at < old.length && old[at].number < card.number) this.sorted.push(old[at++])
      this.sorted.push(card)
    }
    while (added.length > 0 && at < old.length) this.sorted.push(old[at++])
    this.added = []
    this.removed = 0
    return this.sorted
  }

  touch() {
    this.version += 1
    this.listener()
  }

  // A list replaces what was there, one batch after the other; `finish` drops what it did not name. It holds what the
  // events up to `seq` changed.
  beginList(seq) {
    this.listing += 1
    this.listedAt = seq
  }

  takeList(rows) {
    for (const row of rows) this.put(row).listing = this.listing
  }

  finishList() {
    for (const [id, card] of this.cards) if (card.listing !== this.listing) this.drop(id)
    this.listed = true
    this.touch()
  }

  put(row) {
    const old = this.cards.get(row[0])
    const card = cardOfRow(row)
    this.counts[card.health] += 1
    if (!old) {
      this.cards.set(card.id, card)
      this.added.push(card)
      return card
    }
    // In place: the map and the table hold the record.
    this.counts[old.health] -= 1
    return Object.assign(old, card)
  }

  drop(id) {
    const card = this.cards.get(id)
    if (!card) return
    this.cards.delete(id)
    this.counts[card.health] -= 1
    this.removed += 1
  }

  // Events in the order of their numbers. One that has been seen already changes nothing.
  takeEvents(events) {
    if (events.length === 0) return
    for (const event of events) {
      if (event.seq !== undefined && event.seq <= this.seq) continue
      if (event.seq !== undefined) this.seq = event.seq
      if (event.type === 'job') this.takeJob(event)
      else if (event.type === 'change' && event.seq > this.listedAt) this.change(event)
      this.events.push(event)
    }
    if (this.events.length > 2 * MOST_EVENTS) this.events = this.events.slice(-MOST_EVENTS)
    this.touch()
  }

  // What was missed: the events that the history still has, and the notice that says why. They only go to the list of
  // events; a list of the cards holds what they changed. From here on the events of `boot` behind `seq` are wanted.
  note(notice, past, boot, seq) {
    const missed = past.filter((event) => event.seq > this.seq)
    const missing = seq - this.seq - missed.length
    this.events.push(...missed)
    if (notice?.type === 'gap') this.gaps += 1
    // A new run of fxmd can leave numbers out, so only a gap within a run tells how many are missing.
    if (notice?.type === 'boot' || (notice && missing > 0)) this.events.push({ ...notice, seq: undefined, missing })
    this.boot = boot
    this.seq = seq
    this.touch()
  }

  takeJob(job) {
    const isOpen = job.state === 'queued' || job.state === 'running'
    this.jobs.set(job.job, { error: null, ended_ms: isOpen ? null : job.time_ms, ...job })
    if (this.jobs.size > MOST_JOBS) this.jobs.delete(this.jobs.keys().next().value)
  }

  change(event) {
    if (event.now) {
      this.put(rowOf(event.now))
      return
    }
    if (event.kinds.includes('delete')) {
      this.drop(event.card)
      return
    }
    const card = this.cards.get(event.card)
    if (!card) return
    this.counts[card.health] -= 1
    for (const name in event.changes) setMember(card, name, event.changes[name][1])
    this.counts[card.health] += 1
    card.changed = event.time_ms
  }
}

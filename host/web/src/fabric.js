// The copy of the fabric that the page shows: what fxmd listed, and what its events changed since.
import { CLASSES, HEALTH } from './filter.js'
import { parseId } from './ids.js'

const CHANNELS = ['p0m0', 'p0m1', 'p1m0', 'p1m1']
const MOST_EVENTS = 1000
const MOST_JOBS = 1000

// The members of a list that a card is made of.
export const FIELDS =
  'id,class,generation,vlan,health,channels,int_vector,partners,down_port_count,vendor,device,multi_root,updated_ms'

function makeCard(document) {
  const card = { id: document.id, number: parseId(document.id), up: 0, known: 0, partners: [] }
  for (const channel of CHANNELS) setMember(card, `channels.${channel}`, document.channels[channel])
  for (const name of FIELDS.split(',')) setMember(card, name, document[name])
  return card
}

// One member of a card's document. A card keeps what the map, the table and the filter need, as numbers where it can.
function setMember(card, name, value) {
  switch (name) {
    case 'class': card.kind = CLASSES.indexOf(value); break
    case 'generation': card.is40g = value === '40G'; break
    case 'vlan': card.vlan = value; break
    case 'health': card.health = HEALTH.indexOf(value); break
    case 'int_vector': card.int = value; break
    case 'partners': card.partners = value.map(parseId); break
    case 'down_port_count': card.downPorts = value; break
    case 'vendor': card.vendor = value; break
    case 'device': card.device = value; break
    case 'multi_root': card.multiRoot = value; break
    case 'updated_ms': card.changed = value ?? 0; break
    default: {
      const bit = name.startsWith('channels.') ? 1 << CHANNELS.indexOf(name.slice(9)) : 0
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
    this.numbers = new Map() // the same by number
    this.jobs = new Map() // by number, as the job or its last event says
    this.events = [] // the newest last
    this.boot = ''
    this.seq = 0 // of the last event seen
    this.counts = HEALTH.map(() => 0)
    this.listed = false // a whole list has been seen
    this.version = 0 // rises with each change
    this.listener = () => {}
    this.sorted = []
    this.sortedIs = false
  }

  // In ascending order of their ids.
  inOrder() {
    if (!this.sortedIs) {
      const numbers = Float64Array.from(this.numbers.keys()).sort()
      this.sorted = Array.from(numbers, (number) => this.numbers.get(number))
      this.sorted.forEach((card, place) => { card.place = place })
      this.sortedIs = true
    }
    return this.sorted
  }

  touch() {
    this.version += 1
    this.listener()
  }

  // A list replaces what was there, one batch after the other; `finish` drops what it did not name.
  beginList() {
    this.pending = new Set()
  }

  takeList(documents) {
    for (const document of documents) {
      this.pending.add(document.id)
      this.put(document)
    }
    this.touch()
  }

  finishList() {
    for (const id of this.cards.keys()) if (!this.pending.has(id)) this.drop(id)
    this.pending = null
    this.listed = true
    this.touch()
  }

  put(document) {
    const old = this.cards.get(document.id)
    const card = makeCard(document)
    if (old) {
      // Whoever holds the record goes on with it.
      this.counts[old.health] -= 1
      Object.assign(old, card)
    } else {
      this.cards.set(card.id, card)
      this.numbers.set(card.number, card)
      this.sortedIs = false
    }
    this.counts[card.health] += 1
  }

  drop(id) {
    const card = this.cards.get(id)
    if (!card) return
    this.cards.delete(id)
    this.numbers.delete(card.number)
    this.counts[card.health] -= 1
    this.sortedIs = false
  }

  // Events in the order of their numbers. One that has been seen already changes nothing.
  takeEvents(events) {
    for (const event of events) {
      if (event.seq !== undefined && event.seq <= this.seq) continue
      if (event.seq !== undefined) this.seq = event.seq
      if (event.type === 'change') this.change(event)
      else if (event.type === 'job') this.takeJob(event)
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
    if (notice && (notice.type === 'boot' || missing > 0)) this.events.push({ ...notice, seq: undefined, missing })
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
    if (event.kinds.includes('delete')) {
      this.drop(event.card)
      return
    }
    if (event.now) {
      this.put(event.now)
      return
    }
    const card = this.cards.get(event.card)
    if (!card) return
    this.counts[card.health] -= 1
    for (const name in event.changes) if (!name.startsWith('down_ports.')) setMember(card, name, event.changes[name][1])
    this.counts[card.health] += 1
    card.changed = event.time_ms
  }
}

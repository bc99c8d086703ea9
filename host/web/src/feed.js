// Keeps the fabric up to date: one stream of events, and a list of the cards whenever the stream cannot tell everything,
// at the start, after a gap, and after a restart of fxmd. Events that arrive during a list wait for its end: a list is
// not one instant, and what it said too early or too late the events put right in their order.
import { FIELDS } from './fabric.js'
import { Refused, get, readLines } from './api.js'

const SILENCE = 40000 // ms; fxmd says something every 15 s
const SHORTEST_WAIT = 250 // ms before the first new attempt
const LONGEST_WAIT = 4000
const BACKLOG = 200 // events of the history that a new page shows
const MOST_HISTORY = 1000

export class Feed {
  // `onState` gets "connecting", "live", "waiting" (no connection) or "denied" with what fxmd said.
  constructor(fabric, onState) {
    this.fabric = fabric
    this.onState = onState
    this.waiting = null // events that wait for the end of a list
    this.stopped = false
  }

  stop() {
    this.stopped = true
    this.abort?.abort()
  }

  async run() {
    let wait = SHORTEST_WAIT
    this.onState('connecting')
    while (!this.stopped) {
      this.abort = new AbortController()
      let isDenied = false
      try {
        await this.follow(() => { wait = SHORTEST_WAIT })
      } catch (failure) {
        isDenied = failure instanceof Refused && failure.status === 403
        if (isDenied) this.onState('denied', failure)
      }
      this.abort.abort()
      if (this.stopped || isDenied) return
      this.onState('waiting')
      await new Promise((resume) => setTimeout(resume, wait))
      wait = Math.min(2 * wait, LONGEST_WAIT)
    }
  }

  async follow(onFirst) {
    const { fabric } = this
    const { signal } = this.abort
    this.waiting = null
    let alarm
    const alive = () => {
      clearTimeout(alarm)
      alarm = setTimeout(() => this.abort.abort(), SILENCE)
    }
    alive()
    const after = fabric.boot ? `?after=${fabric.boot}.${fabric.seq}` : ''
    try {
      await readLines(`/v1/events${after}`, {
        signal,
        take: (events) => {
          alive()
          for (const event of events) this.takeEvent(event, onFirst)
          if (!this.waiting) fabric.takeEvents(this.ready.splice(0))
        },
      })
    } finally {
      clearTimeout(alarm)
    }
  }

  ready = []

  takeEvent(event, onFirst) {
    const { fabric } = this
    if (event.type === 'boot') {
      onFirst()
      this.onState('live')
      this.boot = event.boot
      const isFirst = fabric.boot === ''
      if (!fabric.listed || !event.resumed)
        this.list(isFirst ? event.seq - BACKLOG : fabric.seq, event.seq, fabric.boot !== event.boot && !isFirst ? event : null)
    } else if (event.type === 'gap') {
      this.list(event.from - 1, event.to, { ...event, time_ms: Date.now() })
    } else {
      (this.waiting ?? this.ready).push(event)
    }
  }

  // Lists all cards, and takes from the history the events behind `from` up to `to`, which the stream does not have.
  async list(from, to, notice) {
    const { fabric } = this
    const { signal } = this.abort
    const waiting = this.ready.splice(0)
    this.waiting = waiting
    try {
      const [past, { jobs }] = await Promise.all([
        this.past(Math.max(from, to - MOST_HISTORY, 0), to),
        get('/v1/jobs', { signal }),
        readLines(`/v1/cards?fields=${FIELDS}`, {
          signal,
          began: () => fabric.beginList(),
          take: (cards) => fabric.takeList(cards),
        }),
      ])
      // Another gap has begun another list.
      if (this.waiting !== waiting) return
      fabric.finishList()
      fabric.jobs.clear()
      for (const job of jobs) fabric.takeJob(job)
      fabric.note(notice, past, this.boot, to)
      this.waiting = null
      fabric.takeEvents(waiting)
    } catch {
      fabric.listed = false
      this.abort.abort()
    }
  }

  async past(from, to) {
    try {
      const found = await get(`/v1/history?after_seq=${from}&limit=${MOST_HISTORY}`, { signal: this.abort.signal })
      return found.events.filter((event) => event.seq <= to)
    } catch {
      return [] // the history can be switched off
    }
  }
}

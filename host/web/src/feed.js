// Keeps the fabric up to date: one stream of events, and a list of the cards whenever the stream cannot tell everything,
// at the start, after a gap, and after a restart of fxmd. Events that arrive during a list wait for its end: a list is
// not one instant, and what it said too early the events behind its beginning put right.
import { FIELDS } from './fabric.js'
import { Refused, get, isRoom, readLines } from './api.js'

const SILENCE = 40000 // ms; fxmd says something every 15 s
const SHORTEST_WAIT = 250 // ms before the first new attempt
const LONGEST_WAIT = 4000
const MOST_HISTORY = 1000 // events that are taken from the history at once
const MOST_WAITING = 131072 // events that are held during a list
const BACKLOG = 300 // events of the past that a new page shows

export class Feed {
  constructor(fabric) {
    this.fabric = fabric
    this.waiting = null // events that wait for the end of a list
    // "connecting", "listing" with the number of cards so far, "live", "waiting" (no connection), or "denied" with what
    // fxmd said.
    this.state = 'connecting'
    this.more = null
    this.listener = () => {}
  }

  onState(state, more = null) {
    this.state = state
    this.more = more
    this.listener()
  }

  // Between two attempts, in ms.
  pause = (ms) => new Promise((resume) => setTimeout(resume, ms))

  async run() {
    let wait = SHORTEST_WAIT
    this.onState('connecting')
    for (;;) {
      this.abort = new AbortController()
      let isDenied = false
      try {
        await this.follow(() => { wait = SHORTEST_WAIT })
      } catch (failure) {
        isDenied = failure instanceof Refused && failure.status === 403
        if (isDenied) this.onState('denied', failure)
      }
      this.abort.abort()
      this.waiting = null
      this.listAbort?.abort()
      if (isDenied) return
      this.onState('waiting')
      await this.pause(wait)
      wait = Math.min(2 * wait, LONGEST_WAIT)
    }
  }

  async follow(onFirst) {
    const { fabric } = this
    const { signal } = this.abort
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
      this.boot = event.boot
      const isRestart = fabric.boot !== '' && fabric.boot !== event.boot
      if (fabric.listed && event.resumed) this.onState('live')
      else this.list(fabric.seq, event.seq, isRestart ? event : null)
    } else if (event.type === 'site') {
      // Its cards are silent now, or speak again.
      this.list(fabric.seq, fabric.seq, null)
    } else if (event.type === 'gap') {
      this.list(event.from - 1, event.to, { ...event, time_ms: Date.now() })
    } else {
      const events = this.waiting ?? this.ready
      events.push(event)
      // A list that takes so long has to begin anew.
      if (events.length > MOST_WAITING) this.abort.abort()
    }
  }

  // Lists all cards, and takes from the history the events behind `from` up to `to`, which the stream does not have.
  async list(from, to, notice) {
    const { fabric } = this
    // What came before the gap. A list that is on its way when another gap comes is of no use any more.
    fabric.takeEvents(this.ready.splice(0))
    this.listAbort?.abort()
    this.listAbort = new AbortController()
    const { signal } = this.listAbort
    const waiting = []
    this.waiting = waiting
    let listed = -1 // the first line names the members
    try {
      const [past, { jobs }] = await Promise.all([
        this.past(from, to, notice?.type === 'gap', signal),
        // A site that is silent tells none.
        get('/v1/jobs', { signal }).catch((failure) => (isRoom ? { jobs: [] } : Promise.reject(failure))),
        readLines(`/v1/cards?rows=true&fields=${FIELDS}`, {
          signal,
          began: (answer) => fabric.beginList(Number(answer.headers.get('Fxm-Position').split('.')[1])),
          take: (rows) => {
            fabric.takeList(listed < 0 ? rows.slice(1) : rows)
            listed += rows.length
            this.onState('listing', listed)
          },
        }),
      ])
      fabric.finishList()
      fabric.jobs.clear()
      for (const job of jobs) fabric.takeJob(job)
      fabric.note(notice, past, this.boot, to)
      this.waiting = null
      fabric.takeEvents(waiting)
      this.onState('live')
    } catch {
      if (this.waiting !== waiting) return // another list has begun
      fabric.listed = false
      this.abort.abort()
    }
  }

  // The numbers of a run of fxmd have no holes, so its last events are known by them; those before a restart are the newest.
  async past(from, to, isGap, signal) {
    const after = Math.max(from, isGap ? to - MOST_HISTORY : 0)
    try {
      const found = await get(`/v1/history?after_seq=${after}&newest=${!isGap}&limit=${this.fabric.listed ? MOST_HISTORY : BACKLOG}`, { signal })
      return found.events.filter((event) => event.seq <= to)
    } catch {
      return [] // the history can be switched off
    }
  }
}

// The first screen of a room: the sites of a fleet, those that need somebody first, and the events of all of them.
import { useEffect, useState } from 'preact/hooks'
import { Refused, get, readLines } from './api.js'
import { EventLine } from './Events.jsx'
import { HEALTH } from './filter.js'
import { duration, number } from './words.js'

const EVERY = 2000 // ms between two looks
const MOST_EVENTS = 200
const PAUSE = 2000 // ms before the events are followed again
const LATE = 1000 // ms that a clock may be off

const sum = ({ cards }, words) => words.reduce((all, word) => all + (cards[word] ?? 0), 0)
// What needs somebody stands first; within that, by name.
const urgency = (site) => [site.state !== 'live', sum(site, ['error', 'lost']) > 0, sum(site, ['degraded']) > 0].indexOf(true) >>> 0

export const siteAddress = (site, card) => `#${new URLSearchParams({ site, ...(card && { card }) })}`

// What the room says now, and why it says nothing.
function useRoom() {
  const [room, setRoom] = useState({ sites: null, status: null, failure: null })
  useEffect(() => {
    const load = async () => {
      if (document.hidden && room.sites) return
      try {
        const [{ sites }, status] = await Promise.all([get('/v1/sites'), get('/v1/status')])
        setRoom({ sites, status, failure: null })
      } catch (failure) {
        setRoom((old) => ({ ...old, failure }))
      }
    }
    const timer = setInterval(load, EVERY)
    load()
    return () => clearInterval(timer)
  }, [])
  return room
}

// The newest first, with some of the past. A lost connection is taken up where it ended.
function useEvents(status) {
  const [events, setEvents] = useState([])
  useEffect(() => {
    if (!status) return
    const abort = new AbortController()
    let { boot } = status
    let seq = Math.max(0, status.seq - MOST_EVENTS)
    const take = (lines) => {
      for (const event of lines) {
        boot = event.boot && event.type === 'boot' ? event.boot : boot
        seq = event.seq ?? event.to ?? seq
      }
      const shown = lines.filter(({ type }) => type !== 'boot')
      if (shown.length > 0) setEvents((old) => [...shown.reverse(), ...old].slice(0, MOST_EVENTS))
    }
    const follow = async () => {
      while (!abort.signal.aborted) {
        await readLines(`/v1/events?after=${boot}.${seq}`, { signal: abort.signal, take }).catch(() => {})
        await new Promise((resume) => setTimeout(resume, PAUSE))
      }
    }
    follow()
    return () => abort.abort()
  }, [status !== null])
  return events
}

const COLUMNS = [
  ['Site', ({ site }) => <a href={siteAddress(site)}>{site}</a>],
  ['State', ({ state }) => <b class={state === 'live' ? '' : 'problem'}>{state}</b>],
  ['Heard', ({ age_ms: age, state }) => <span class={state === 'live' ? 'muted' : 'problem'}>{duration(age)} ago</span>],
  ['Cards', ({ cards }) => number(cards.total)],
  ...HEALTH.map((word) => [word, ({ cards }) => (cards[word] ? <><span class={`swatch ${word}`} />{number(cards[word])}</> : '')]),
  ['Clock', ({ offset_ms: ms }) => (ms === null ? '' : <span class={Math.abs(ms) >= LATE ? 'problem' : 'muted'}>{ms > 0 ? '+' : ''}{number(ms)} ms</span>)],
  ['Waiting', ({ waiting }) => number(waiting)],
  ['Holes', ({ lost }) => (lost ? <b class="problem">{number(lost)}</b> : '0')],
  ['Version', ({ version }) => version ?? ''],
  ['Allows', ({ allow }) => allow ?? ''],
]

function SiteTable({ sites }) {
  const sorted = [...sites].sort((a, b) => urgency(a) - urgency(b) || (a.site < b.site ? -1 : 1))
  return (
    <section class="panel sites" aria-label="Sites">
      <div class="bar"><h2>Sites</h2><span class="muted">{number(sites.length)}</span></div>
      <div class="scroller">
        <table class="small">
          <thead><tr>{COLUMNS.map(([name]) => <th scope="col">{name}</th>)}</tr></thead>
          <tbody>
            {sorted.map((site) => (
              <tr key={site.site} class={site.state}>{COLUMNS.map(([name, show]) => <td key={name}>{show(site)}</td>)}</tr>
            ))}
          </tbody>
        </table>
        {sites.length === 0 && <p class="empty">No site has told anything yet.</p>}
      </div>
    </section>
  )
}

export function Sites({ head, login }) {
  const { sites, status, failure } = useRoom()
  const events = useEvents(status)
  const cards = status?.cards ?? {}
  const bad = sites?.filter((site) => urgency(site) < 2).length ?? 0
  useEffect(() => { document.title = bad > 0 ? `(${bad}) fxm` : 'fxm' }, [bad])
  if (failure instanceof Refused && failure.status === 403) return login(failure)
  return (
    <>
      <header class="head">
        {head(
          <span class={`link-state ${failure ? 'waiting' : 'live'}`} role="status">{failure ? 'no connection; trying again' : sites ? 'live' : 'connecting'}</span>,
          status && <span class="muted wide">room {status.room.user}, fxmd {status.version}, up {duration(status.time_ms - status.started_ms)}, {status.room.server}</span>,
        )}
        <div class="answer">
          {HEALTH.map((word) => (
            <span class={`tile ${word} ${cards[word] > 0 ? 'some' : 'none'}`}>
              <b>{number(cards[word] ?? 0)}</b> <span class={`swatch ${word}`} />{word}
            </span>
          ))}
        </div>
        {status?.warnings.map((words) => <p class="warning" role="alert">{words}</p>)}
      </header>
      <main class="fleet">
        {sites && <SiteTable sites={sites} />}
        <section class="panel events" aria-label="Events">
          <div class="bar"><h2>Events of all sites</h2></div>
          <ol class="scroller" tabIndex={0} aria-label="Events, the newest first">
            {events.map((event) => (
              <EventLine key={event.seq ?? `gap${event.to}`} event={event} onOpen={(card) => { location.hash = siteAddress(...card.split('/')) }} />
            ))}
            {events.length === 0 && <li class="muted">Nothing has happened yet.</li>}
          </ol>
        </section>
      </main>
    </>
  )
}

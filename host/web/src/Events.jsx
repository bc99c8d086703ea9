// The live list of events, the newest first.
import { useState } from 'preact/hooks'
import { clock, eventWords, number } from './words.js'

const MOST_SHOWN = 100

export const EventLine = ({ event, onOpen }) => (
  <li class={`event ${event.type}`}>
    {event.time_ms === undefined ? null : <time dateTime={new Date(event.time_ms).toISOString()}>{clock(event.time_ms, true)}</time>}
    {event.card && onOpen ? <button type="button" class="link" onClick={() => onOpen(event.card)}><code>{event.card}</code></button> : null}
    <span>{eventWords(event)}</span>
  </li>
)

export function EventList({ fabric, filter, onOpen }) {
  const [held, setHeld] = useState(null) // the events as they were when the list was stopped
  const source = held ?? fabric.events
  const shown = []
  for (let i = source.length; i-- > 0 && shown.length < MOST_SHOWN;) {
    const event = source[i]
    const card = filter.isEmpty || !event.card ? null : fabric.cards.get(event.card)
    if (filter.isEmpty || !event.card || (card && filter.matches(card))) shown.push(event)
  }
  const newer = held ? fabric.events.filter((event) => event.seq > (held.findLast(({ seq }) => seq)?.seq ?? 0)).length : 0
  return (
    <section class="panel events" aria-label="Events">
      <div class="bar">
        <h2>Events</h2>
        {held && newer > 0 && <span class="muted">{number(newer)} newer</span>}
        <button type="button" class="right" aria-pressed={held !== null} onClick={() => setHeld(held ? null : [...fabric.events])}>
          {held ? 'Go on' : 'Hold'}
        </button>
      </div>
      <ol class="scroller" tabIndex={0} aria-label="Events, the newest first">
        {shown.map((event) => <EventLine key={event.seq ?? `${event.type}${event.time_ms}`} event={event} onOpen={onOpen} />)}
        {shown.length === 0 && <li class="muted">Nothing has happened yet.</li>}
      </ol>
    </section>
  )
}

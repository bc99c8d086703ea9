// The table of cards. Only the rows in sight exist; they stand in a box that sticks to the view, so that no speed of
// scrolling can show an empty one.
import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks'
import { channelWords } from './fabric.js'
import { HEALTH } from './filter.js'
import { formatId, hex } from './ids.js'
import { number, when } from './words.js'

const ROW = 28 // px
// By health: what needs somebody stands first.
const URGENCY = [5, 3, 0, 1, 4, 2]

function partnerWords(card) {
  if (card.kind === 0) return `${card.partners.length} of ${card.downPorts} down ports`
  return card.partners.length > 0 ? formatId(card.partners[0]) : 'unconnected'
}

// `width` is in px at least. `key` is a number by which the column is sorted; without one, it is by the id.
const COLUMNS = [
  { name: 'Health', width: 104, key: (card) => URGENCY[card.health], show: (card) => <Health card={card} /> },
  { name: 'Card', width: 150, show: (card) => <code>{card.id}</code> },
  { name: 'Class', width: 52, key: (card) => card.kind, show: (card) => (card.kind === 0 ? 'FXSV' : 'FXIO') },
  { name: 'Gen', width: 58, key: (card) => (card.is40g ? 1 : 0), show: (card) => (card.is40g ? '40G' : '1/10G') },
  { name: 'VLAN', width: 52, key: (card) => card.vlan, show: (card) => card.vlan },
  { name: 'Channels', width: 82, key: (card) => card.up, show: (card) => channelWords(card) },
  { name: 'Int', width: 40, key: (card) => card.int, show: (card) => (card.int ? hex(card.int, 2) : '') },
  { name: 'Partners', width: 152, key: (card) => card.partners.length, show: partnerWords },
  {
    name: 'Device',
    width: 88,
    key: (card) => (card.vendor === null ? 0 : parseInt(card.vendor + card.device, 16)),
    show: (card) => (card.vendor === null ? '' : `${card.vendor}:${card.device}`),
  },
  { name: 'Changed', width: 88, key: (card) => Math.floor(card.changed / 1000), show: (card) => (card.changed ? when(card.changed) : '') },
]
const LEAST_WIDTH = { minWidth: `${COLUMNS.reduce((sum, { width }) => sum + width, 16)}px` }
const TEMPLATE = { gridTemplateColumns: COLUMNS.map(({ width }) => `minmax(0, ${width}fr)`).join(' ') }

const Health = ({ card }) => (
  <span class="health"><span class={`swatch ${HEALTH[card.health]}`} />{HEALTH[card.health]}</span>
)

// The key of the column and the place in the order of the ids make one number. Numbers are sorted without a function that
// compares them, so tens of thousands of cards take a few milliseconds.
export function sortCards(cards, sort) {
  const { key } = COLUMNS[sort.column]
  if (!key) return sort.down ? [...cards].reverse() : cards
  const size = 2 ** Math.ceil(Math.log2(cards.length + 1))
  const keys = Float64Array.from(cards, (card, place) => key(card) * size + place).sort()
  const sorted = Array.from(keys, (value) => cards[value % size])
  return sort.down ? sorted.reverse() : sorted
}

export function CardTable({ cards, total, sort, setSort, selected, onOpen }) {
  const scroller = useRef()
  const [top, setTop] = useState(0)
  const [height, setHeight] = useState(400)
  const [active, setActive] = useState(0) // the row of the arrow keys
  useLayoutEffect(() => {
    const measure = () => setHeight(scroller.current.clientHeight)
    const observer = new ResizeObserver(measure)
    observer.observe(scroller.current)
    measure()
    return () => observer.disconnect()
  }, [])
  useEffect(() => {
    const element = scroller.current
    const follow = () => setTop(element.scrollTop)
    element.addEventListener('scroll', follow, { passive: true })
    return () => element.removeEventListener('scroll', follow)
  }, [])

  const room = Math.max(1, Math.floor(height / ROW) - 1) // rows below the head
  const first = Math.min(Math.floor(top / ROW), Math.max(0, cards.length - 1))
  const current = Math.min(active, cards.length - 1)
  const rows = cards.slice(first, first + room + 2)
  const offset = top - first * ROW

  const go = (place) => {
    const next = Math.max(0, Math.min(cards.length - 1, place))
    setActive(next)
    const element = scroller.current
    if (next * ROW < element.scrollTop) element.scrollTop = next * ROW
    else if ((next + 1) * ROW > element.scrollTop + room * ROW) element.scrollTop = (next + 1 - room) * ROW
  }
  const press = (event) => {
    const steps = { ArrowUp: current - 1, ArrowDown: current + 1, PageUp: current - room, PageDown: current + room, Home: 0, End: cards.length - 1 }
    if (event.target !== scroller.current) return
    if (event.key in steps) go(steps[event.key])
    else if (event.key === 'Enter' && cards[current]) onOpen(cards[current])
    else return
    event.preventDefault()
  }
  const by = (column) => setSort({ column, down: sort.column === column && !sort.down })

  return (
    <section class="panel table" aria-label="Table of cards">
      <div class="bar">
        <h2>Cards</h2>
        <span class="muted">{cards.length === total ? number(total) : `${number(cards.length)} of ${number(total)}`}</span>
      </div>
      <div
        class="scroller" ref={scroller} tabIndex={0} role="grid" aria-label="Cards" aria-rowcount={cards.length + 1}
        aria-activedescendant={cards.length > 0 ? `row-${current}` : undefined} onKeyDown={press}
      >
        <div class="window" role="presentation" style={{ height: `${height}px`, ...LEAST_WIDTH }}>
          <div class="row head" role="row" aria-rowindex={1} style={TEMPLATE}>
            {COLUMNS.map(({ name }, column) => (
              <span role="columnheader" aria-sort={sort.column !== column ? 'none' : sort.down ? 'descending' : 'ascending'}>
                <button type="button" onClick={() => by(column)}>
                  {name}<span aria-hidden="true">{sort.column !== column ? '' : sort.down ? ' \u25bc' : ' \u25b2'}</span>
                </button>
              </span>
            ))}
          </div>
          <div class="rows" role="presentation">
            <div class="shifted" role="presentation" style={{ transform: `translateY(${-offset}px)` }}>
              {rows.map((card, slot) => (
                <div
                  key={slot} id={`row-${first + slot}`} role="row" aria-rowindex={first + slot + 2} style={TEMPLATE}
                  aria-selected={card === selected}
                  class={`row ${card === selected ? 'selected' : ''} ${first + slot === current ? 'active' : ''}`}
                  onClick={() => { setActive(first + slot); onOpen(card) }}
                >
                  {COLUMNS.map(({ show }) => <span role="gridcell">{show(card)}</span>)}
                </div>
              ))}
            </div>
          </div>
        </div>
        <div class="tall" role="presentation" style={{ height: `${Math.max(0, (cards.length + 1) * ROW - height)}px` }} />
      </div>
      {cards.length === 0 && <p class="empty">{total === 0 ? 'No card has announced itself yet.' : 'No card matches the filter.'}</p>}
    </section>
  )
}

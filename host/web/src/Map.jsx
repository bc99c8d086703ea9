// The map of the fabric: a cell for each card, in groups.
import { useEffect, useLayoutEffect, useMemo, useRef, useState } from 'preact/hooks'
import { site } from './api.js'
import { HEALTH, OWN_HEALTH } from './filter.js'
import { cardAt, findCell, groupAt, layOut, neighbour } from './layout.js'
import { Painter, colours } from './paint.js'
import { number } from './words.js'

const cardWords = (card) => `${card.id} ${card.kind === 0 ? 'FXSV' : 'FXIO'} vlan ${card.vlan}, ${HEALTH[card.health]}`

// The size of an element, and that of a pixel.
function useSize(ref) {
  const [size, setSize] = useState({ width: 0, height: 0, scale: 1 })
  useLayoutEffect(() => {
    const measure = () => {
      const { clientWidth: width, clientHeight: height } = ref.current
      setSize((old) => {
        const scale = window.devicePixelRatio || 1
        return old.width === width && old.height === height && old.scale === scale ? old : { width, height, scale }
      })
    }
    const observer = new ResizeObserver(measure)
    observer.observe(ref.current)
    measure()
    return () => observer.disconnect()
  }, [])
  return size
}

export function FabricMap({ cards, version, theme, mode, setMode, selected, onOpen }) {
  const scroller = useRef()
  const canvas = useRef()
  const painter = useRef()
  const [zoom, setZoom] = useState(0)
  const [pointed, setPointed] = useState(null) // { card, words, x, y }
  const [cursor, setCursor] = useState(null) // of the arrow keys
  const { width, height, scale } = useSize(scroller)
  const layout = useMemo(() => layOut(cards, mode, width - 8, height - 8, zoom), [cards, version, mode, width, height, zoom])
  const palette = useMemo(() => scroller.current && colours(scroller.current), [theme, width])

  const draw = () => {
    const marked = [selected, cursor, pointed?.card].filter(Boolean)
    painter.current?.draw(layout, scroller.current.scrollTop, palette ?? colours(scroller.current), marked)
  }
  const drawRef = useRef(draw)
  drawRef.current = draw

  useLayoutEffect(() => {
    painter.current ??= new Painter(canvas.current)
    painter.current.resize(width - 8, height - 8, scale)
    drawRef.current()
  }, [width, height, scale])
  useLayoutEffect(draw, [layout, version, palette, selected, cursor, pointed?.card])
  useEffect(() => {
    const redraw = () => drawRef.current()
    scroller.current.addEventListener('scroll', redraw, { passive: true })
    return () => scroller.current?.removeEventListener('scroll', redraw)
  }, [])

  const place = (event) => {
    const box = canvas.current.getBoundingClientRect()
    return [event.clientX - box.left, event.clientY - box.top + scroller.current.scrollTop]
  }
  const point = (event) => {
    const [x, y] = place(event)
    const card = cardAt(layout, x, y)
    const group = card ? null : groupAt(layout, x, y)?.group
    const words = card ? cardWords(card) : group && `${group.name}: ${number(group.members.length)} cards`
    setPointed(words ? { card, words, x: event.clientX, y: event.clientY } : null)
  }
  const open = (event) => {
    const card = cardAt(layout, ...place(event))
    if (card) onOpen(card)
  }
  const move = (card) => {
    setCursor(card)
    const cell = card && findCell(layout, card)
    if (!cell) return
    const { scrollTop } = scroller.current
    if (cell.y < scrollTop) scroller.current.scrollTop = cell.y - layout.label
    else if (cell.y + layout.size > scrollTop + height - 8) scroller.current.scrollTop = cell.y + layout.size - height + 8
  }
  const press = (event) => {
    if (event.key.startsWith('Arrow')) move(neighbour(layout, cursor, event.key))
    else if (event.key === 'Enter' && cursor) onOpen(cursor)
    else if (event.key === '+') setZoom(layout.largest ? zoom : zoom + 1)
    else if (event.key === '-') setZoom(Math.max(0, zoom - 1))
    else return
    event.preventDefault()
  }

  return (
    <section class="panel map" aria-label="Map of the fabric">
      <div class="bar">
        <h2>Map</h2>
        <div class="choice" role="group" aria-label="Groups of the map">
          {[['vlan', 'by VLAN'], ['server', 'by server']].map(([value, words]) => (
            <button type="button" aria-pressed={mode === value} onClick={() => setMode(value)}>{words}</button>
          ))}
        </div>
        <div class="choice" role="group" aria-label="Size of the cells">
          <button type="button" aria-label="Smaller cells" disabled={zoom === 0} onClick={() => setZoom(zoom - 1)}>{'\u2212'}</button>
          <button type="button" aria-label="Larger cells" disabled={layout.largest} onClick={() => setZoom(zoom + 1)}>+</button>
        </div>
        <Legend />
      </div>
      <div
        class="canvas" ref={scroller} tabIndex={0} role="application" aria-roledescription="map"
        aria-label={`${number(cards.length)} cards in ${number(layout.groups)} groups. Arrow keys go from card to card, Enter opens one.`}
        onKeyDown={press} onBlur={() => setCursor(null)}
      >
        <canvas ref={canvas} onMouseMove={point} onMouseLeave={() => setPointed(null)} onClick={open} />
        <div class="tall" style={{ height: `${Math.max(0, layout.height - (height - 8))}px` }} />
      </div>
      <p class="unseen" aria-live="polite">{cursor ? cardWords(cursor) : ''}</p>
      {pointed && <div class="hint" style={hintPlace(pointed)}>{pointed.words}</div>}
    </section>
  )
}

const hintPlace = ({ x, y }) =>
  x < window.innerWidth / 2 ? { left: `${x + 14}px`, top: `${y + 14}px` } : { right: `${window.innerWidth - x + 14}px`, top: `${y + 14}px` }

const Legend = () => (
  <ul class="legend" aria-label="Colours">
    {(site ? HEALTH : OWN_HEALTH).map((word) => <li><span class={`swatch ${word}`} />{word}</li>)}
  </ul>
)

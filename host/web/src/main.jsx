// The page: one copy of the fabric, kept up to date by the feed, and the views of it.
import { render } from 'preact'
import { useEffect, useMemo, useRef, useState } from 'preact/hooks'
import { get, isRoom, site, token } from './api.js'
import { AskDialog } from './Ask.jsx'
import { Curves } from './Curves.jsx'
import { Drawer } from './Drawer.jsx'
import { EventList } from './Events.jsx'
import { Fabric } from './fabric.js'
import { Feed } from './feed.js'
import { HEALTH, OWN_HEALTH, parseFilter, withWord } from './filter.js'
import { formatId, parseId } from './ids.js'
import { FabricMap } from './Map.jsx'
import { Sites } from './Sites.jsx'
import { CardTable, sortCards } from './Table.jsx'
import { clock, duration, number } from './words.js'

const LEAST_PAUSE = 40 // ms between two drawings
const REST = 4 // at least so many times as long as a drawing took, so that the page stays at hand
const STATUS = 2000 // ms between two looks at the status
const STEP = 8192 // cards between two steps of the progress of a list

// Where the user is stands in the address: #filter=...&card=...&map=server. It can be kept, sent and gone back to.
const readPlace = () => new URLSearchParams(location.hash.slice(1))

function usePlace() {
  const [place, setPlace] = useState(readPlace)
  useEffect(() => {
    const follow = () => setPlace(readPlace())
    addEventListener('hashchange', follow)
    return () => removeEventListener('hashchange', follow)
  }, [])
  const change = (name, value) => {
    const next = readPlace()
    if (value) next.set(name, value)
    else next.delete(name)
    const hash = `#${next}`
    // A filter is typed letter by letter; only a card is a step to go back from.
    if (name === 'card') history.pushState(null, '', hash)
    else history.replaceState(null, '', hash)
    setPlace(next)
  }
  return [place, change]
}

function useTheme() {
  const [choice, setChoice] = useState(() => localStorage.getItem('fxm-theme') ?? 'auto')
  const dark = useMemo(() => matchMedia('(prefers-color-scheme: dark)'), [])
  const [system, setSystem] = useState(dark.matches)
  useEffect(() => {
    const follow = () => setSystem(dark.matches)
    dark.addEventListener('change', follow)
    return () => dark.removeEventListener('change', follow)
  }, [])
  const theme = choice === 'auto' ? (system ? 'dark' : 'light') : choice
  document.documentElement.dataset.theme = theme
  const choose = (next) => {
    localStorage.setItem('fxm-theme', next)
    setChoice(next)
  }
  return [theme, choice, choose]
}

// A new number whenever the fabric has changed, but not more often than the page can draw.
function useVersion(fabric) {
  const [version, setVersion] = useState(0)
  const pause = useRef(LEAST_PAUSE)
  const began = useRef(0)
  useEffect(() => {
    let timer = null
    fabric.listener = () => {
      timer ??= setTimeout(() => {
        timer = null
        began.current = performance.now()
        setVersion(fabric.version)
      }, document.hidden ? 1000 : pause.current)
    }
    fabric.listener() // what has come before
    return () => { fabric.listener = () => {} }
  }, [])
  // Runs when the drawing is done.
  useEffect(() => {
    if (began.current === 0) return
    const took = performance.now() - began.current
    window.fxm.drawings.push(took)
    if (window.fxm.drawings.length > 1000) window.fxm.drawings.splice(0, 500)
    pause.current = Math.max(LEAST_PAUSE, REST * took)
  }, [version])
  return version
}

function useStatus(isLive) {
  const [status, setStatus] = useState(null)
  const version = useRef(null) // of the fxmd that this page came from
  useEffect(() => {
    if (!isLive) return
    const take = (found) => {
      version.current ??= found.version
      const isOther = found.version !== version.current
      setStatus({ ...found, warnings: [...found.warnings, ...(isOther ? [`fxmd is ${found.version} now; load this page again`] : [])] })
    }
    const load = () => document.hidden || get('/v1/status').then(take, () => {})
    load()
    const timer = setInterval(load, STATUS)
    return () => clearInterval(timer)
  }, [isLive])
  return status
}

function Login({ failure, onToken }) {
  const [text, setText] = useState('')
  return (
    <main class="login">
      <h1>fxm</h1>
      <p>{failure.message}</p>
      {failure.hint && <p class="muted">{failure.hint}</p>}
      <form onSubmit={(event) => { event.preventDefault(); onToken(text.trim()) }}>
        <label>Token <input type="password" value={text} onInput={(event) => setText(event.target.value)} autofocus required autocomplete="off" /></label>
        <button type="submit">Open</button>
      </form>
      <p class="muted">The token is kept by this tab alone, until it is closed.</p>
    </main>
  )
}

const LINKS = { connecting: 'connecting', listing: 'reading the cards', live: 'live', waiting: 'no connection; trying again' }

function Ports({ ports, now }) {
  return (
    <ul class="ports" aria-label="Ports">
      {ports.map((port) => (
        <li class={port.state === 'up' ? '' : 'problem'}>
          port {port.port} {port.name} <b>{{ up: 'up', down: 'NO CARRIER', closed: 'CLOSED' }[port.state]}</b>
          {port.state !== 'up' && port.changed_ms !== null && ` since ${clock(port.changed_ms)} (${duration(now - port.changed_ms)})`}
          <span class="muted"> {number(port.received)} frames, {number(port.dropped)} dropped</span>
        </li>
      ))}
    </ul>
  )
}

function Bar({ link, about, theme, chooseTheme }) {
  return (
    <div class="bar">
      <h1>fxm</h1>
      {site && <><a href="#">all sites</a><b>{site}</b></>}
      {link}
      {about}
      <div class="choice right" role="group" aria-label="Colours of the page">
        {['auto', 'light', 'dark'].map((value) => <button type="button" aria-pressed={theme === value} onClick={() => chooseTheme(value)}>{value}</button>)}
      </div>
    </div>
  )
}

function Head({ fabric, status, link, listed, filter, setFilter, theme, chooseTheme, input }) {
  const state = filter.text.split(' ').find((word) => word.startsWith('state='))?.slice(6)
  const about = status && `fxmd ${status.version}, ${status.started_ms === null ? 'silent' : `up ${duration(status.time_ms - status.started_ms)}`}, your role: ${status.role}`
  return (
    <header class="head">
      <Bar
        link={<span class={`link-state ${link}`} role="status">{LINKS[link]}{listed > 0 && `: ${number(listed)}`}</span>}
        about={about && <span class="muted wide">{about}</span>} theme={theme} chooseTheme={chooseTheme}
      />
      <div class="answer">
        {(site ? HEALTH : OWN_HEALTH).map((word, health) => (
          <button
            type="button" class={`tile ${word} ${fabric.counts[health] > 0 ? 'some' : 'none'}`} aria-pressed={state === word}
            onClick={() => setFilter(withWord(filter.text, 'state', state === word ? null : word))}
          >
            <b>{number(fabric.counts[health])}</b> <span class={`swatch ${word}`} />{word}
          </button>
        ))}
        {status && <Ports ports={status.ports} now={status.time_ms} />}
      </div>
      {status && [
        ...(status.library.state === 'running' || status.started_ms === null ? [] : [`The library is ${status.library.state}.`]),
        ...(status.history.state === 'failing' ? [`The history is not written: ${status.history.error}`] : []),
        ...status.warnings,
      ].map((words) => <p class="warning" role="alert">{words}</p>)}
      <form class="filter" role="search" onSubmit={(event) => event.preventDefault()}>
        <label for="filter">Filter</label>
        <input
          id="filter" ref={input} value={filter.given} placeholder="state=error vlan=100-199 class=fxio id=02:00:00:*" spellcheck={false} autocomplete="off"
          aria-invalid={filter.problem !== ''} aria-describedby="filter-problem" onInput={(event) => setFilter(event.target.value)}
        />
        {filter.given && <button type="button" onClick={() => setFilter('')}>Clear</button>}
        <span id="filter-problem" class="problem" role="status">{filter.problem}</span>
      </form>
    </header>
  )
}

// A filter that is being typed is wrong most of the time; the last right one stays in force.
function useFilter(given) {
  const last = useRef(parseFilter(''))
  return useMemo(() => {
    let problem = ''
    try {
      last.current = parseFilter(given)
    } catch (failure) {
      problem = failure.message
    }
    return { ...last.current, given, problem }
  }, [given])
}

// The state of the feed: its word, what goes with it, and the cards of a list that arrives, in steps.
function useFeed(feed) {
  const read = () => [feed.state, feed.state === 'denied' ? feed.more : null, feed.state === 'listing' ? Math.floor(feed.more / STEP) * STEP : 0]
  const [state, setState] = useState(read)
  useEffect(() => {
    feed.listener = () => setState((old) => {
      const now = read()
      return now.every((value, i) => value === old[i]) ? old : now
    })
    feed.listener()
    return () => { feed.listener = () => {} }
  }, [])
  return state
}

function App({ fabric, feed }) {
  const [link, denied, listed] = useFeed(feed)
  const [place, change] = usePlace()
  const [theme, themeChoice, chooseTheme] = useTheme()
  const [sort, setSort] = useState({ column: 1, down: false })
  const [registers, setRegisters] = useState([])
  const input = useRef()
  const version = useVersion(fabric)
  const status = useStatus(link === 'live' || link === 'listing')
  const filter = useFilter(place.get('filter') ?? '')
  const mode = place.get('map') === 'server' ? 'server' : 'vlan'
  const selectedNumber = parseId(place.get('card') ?? '')
  const selectedId = selectedNumber === null ? null : formatId(selectedNumber)

  useEffect(() => {
    if (link === 'live') get('/v1/registers').then((found) => setRegisters(found.registers), () => {})
  }, [link])
  useEffect(() => {
    const press = (event) => {
      if (event.key !== '/' || /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.tagName) || document.querySelector('dialog[open]')) return
      event.preventDefault()
      input.current?.focus()
    }
    addEventListener('keydown', press)
    return () => removeEventListener('keydown', press)
  }, [])

  const inOrder = useMemo(() => (filter.isEmpty ? fabric.inOrder() : fabric.inOrder().filter(filter.matches)), [version, filter])
  const sorted = useMemo(() => sortCards(inOrder, sort), [inOrder, sort])
  const bad = fabric.counts[2] + fabric.counts[3]
  useEffect(() => { document.title = bad > 0 ? `(${bad}) fxm` : 'fxm' }, [bad])

  const open = (card) => change('card', typeof card === 'string' ? card : card.id)
  const selected = selectedId ? (fabric.cards.get(selectedId) ?? null) : null
  // A part whose inputs are unchanged keeps its element, and Preact passes it over. Most changes concern one part.
  const map = useMemo(
    () => <FabricMap cards={inOrder} version={version} theme={theme} mode={mode} setMode={(value) => change('map', value === 'vlan' ? null : value)} selected={selected} onOpen={open} />,
    [inOrder, version, theme, mode, selected],
  )
  const table = useMemo(
    () => <CardTable cards={sorted} total={fabric.cards.size} sort={sort} setSort={setSort} selected={selected} onOpen={open} />,
    [sorted, version, sort, selected],
  )
  const events = useMemo(() => <EventList fabric={fabric} filter={filter} onOpen={open} />, [version, filter])
  const curves = useMemo(() => fabric.listed && <Curves theme={theme} boot={fabric.boot} />, [theme, fabric.boot, fabric.listed])
  if (denied)
    return <Login failure={denied} onToken={(text) => { token.set(text); feed.run() }} />
  return (
    <>
      <Head fabric={fabric} status={status} link={link} listed={listed} filter={filter} setFilter={(text) => change('filter', text)} theme={themeChoice} chooseTheme={chooseTheme} input={input} />
      <main>
        {map}
        {table}
        {events}
        {curves}
      </main>
      {selectedId && (
        <Drawer id={selectedId} fabric={fabric} role={status?.role} status={status} registers={registers} onOpen={open} onClose={() => change('card', null)} />
      )}
      <AskDialog />
    </>
  )
}

// All sites of a room: the first screen. One site is shown as that would show itself.
function Room() {
  const [, themeChoice, chooseTheme] = useTheme()
  const [logins, setLogins] = useState(0)
  return (
    <Sites
      key={logins} head={(link, about) => <Bar link={link} about={about} theme={themeChoice} chooseTheme={chooseTheme} />}
      login={(failure) => <Login failure={failure} onToken={(text) => { token.set(text); setLogins(logins + 1) }} />}
    />
  )
}

// Another site is another fabric, with a feed of its own.
if (isRoom) addEventListener('hashchange', () => { if ((readPlace().get('site') ?? '') !== site) location.reload() })
const fabric = new Fabric()
// For tests and for the curious: the copy of the fabric, and how long the last drawings took, in ms.
window.fxm = { fabric, drawings: [] }
if (isRoom && !site) {
  render(<Room />, document.getElementById('page'))
} else {
  const feed = new Feed(fabric)
  feed.run() // before the first drawing, which would only delay it
  render(<App fabric={fabric} feed={feed} />, document.getElementById('page'))
}

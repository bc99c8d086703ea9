// Values in words, as fxmctl writes them.
export const number = (value) => value.toLocaleString('en-US')

const pad = (value, digits = 2) => String(value).padStart(digits, '0')

export function clock(ms, withMs = false) {
  const time = new Date(ms)
  const text = `${pad(time.getHours())}:${pad(time.getMinutes())}:${pad(time.getSeconds())}`
  return withMs ? `${text}.${pad(time.getMilliseconds(), 3)}` : text
}

export function date(ms) {
  const time = new Date(ms)
  return `${time.getFullYear()}-${pad(time.getMonth() + 1)}-${pad(time.getDate())} ${clock(ms)}`
}

// The time of today, the date of another day.
export const when = (ms) => (new Date(ms).toDateString() === new Date().toDateString() ? clock(ms) : date(ms))

export function duration(ms) {
  const s = Math.max(0, ms) / 1000
  if (s < 60) return `${s.toFixed(1)} s`
  if (s < 3600) return `${Math.floor(s / 60)} min`
  const rest = `${pad(Math.floor((s % 86400) / 3600))}:${pad(Math.floor((s % 3600) / 60))}`
  return s < 86400 ? `${rest} h` : `${Math.floor(s / 86400)} d ${rest}`
}

function value(given) {
  if (given === null) return 'none'
  return typeof given === 'string' ? given : JSON.stringify(given)
}

export function eventWords(event) {
  switch (event.type) {
    case 'gap': return `${event.missing === undefined ? 'the' : `this page was too slow: ${number(event.missing)} of the`} events ${event.from} to ${event.to} are missing`
    case 'boot': return 'fxmd has been started again'
    case 'site': return `site ${event.site} is ${event.state}`
    case 'hole': return `the events ${event.from} to ${event.to} of the site ${event.site} are missing`
    case 'reset': return `the site ${event.site} has lost its state; its numbers begin anew`
    case 'port': return `port ${event.port} ${event.name} ${event.state[0]}\u2192${event.state[1]}`
    case 'library': return `library ${event.state}${event.result === null ? '' : ` after ${event.result}`}`
    case 'job': return `job ${event.job} ${event.kind} ${event.state} ${event.done}/${event.total}`
    default:
  }
  const changes = Object.entries(event.changes)
    // The interrupt vector is one of the three status bytes.
    .filter(([name]) => !(name === 'status' && 'int_vector' in event.changes))
    .map(([name, [before, after]]) => `${name} ${value(before)}\u2192${value(after)}`)
  const kinds = event.kinds.filter((kind) => kind === 'new' || kind === 'delete' || changes.length === 0)
  const bits = event.int_seen ? [`(interrupt bits seen: ${event.int_seen.toString(16).padStart(2, '0')})`] : []
  const now = event.now ? [`${event.class.toUpperCase()} vlan ${event.vlan} ${event.health}`] : []
  return [...kinds, ...changes, ...bits, ...now].join(' ')
}

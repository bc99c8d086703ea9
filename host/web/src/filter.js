// The filter of lists: the same words as in fxmctl and in the API. host/common/filter_cases.txt holds both to it.
import { parseId, parseNumber } from './ids.js'

// The last one is of a room alone: what its site tells nothing of any more.
export const HEALTH = ['well', 'degraded', 'error', 'lost', 'unmonitored', 'silent']
export const OWN_HEALTH = HEALTH.slice(0, -1)
export const CLASSES = ['fxsv', 'fxio']

const word = (words) => (text) => {
  const place = words.indexOf(text.toLowerCase())
  return place < 0 ? null : [place, place]
}

function hexadecimal(text) {
  const digits = text.replace(/^0x/, '')
  if (!/^[\da-f]{1,4}$/i.test(digits)) return null
  const value = parseInt(digits, 16)
  return [value, value]
}

function vlans(text) {
  const [, from, to] = /^([^-]*)(?:-(.*))?$/s.exec(text)
  const first = parseNumber(from)
  const last = to === undefined ? first : parseNumber(to)
  return first === null || last === null || first > last || last > 4095 ? null : [first, last]
}

// An id, or all ids that begin so.
function ids(text) {
  if (!text.endsWith('*')) {
    const id = parseId(text)
    return id === null ? null : [id, id]
  }
  const digits = text.slice(0, -1).replace(/^0x/i, '').replace(/[:.-]/g, '')
  if (digits === '') return [0, Infinity]
  if (!/^[\da-f]{1,12}$/i.test(digits)) return null
  const size = 16 ** (12 - digits.length)
  const first = parseInt(digits, 16) * size
  return [first, first + size - 1]
}

function mask(text) {
  const bits = parseNumber(text)
  return bits === null || bits > 0xff ? null : [bits, bits]
}

const is = (value, ranges) => ranges.some(([first, last]) => value >= first && value <= last)
const isHex = (text, ranges) => text !== null && is(parseInt(text, 16), ranges)

const KEYS = {
  state: {
    values: 'well, degraded, error, lost, unmonitored, silent',
    parse: word(HEALTH),
    test: (card, ranges) => is(card.health, ranges),
  },
  class: { values: 'fxsv, fxio', parse: word(CLASSES), test: (card, ranges) => is(card.kind, ranges) },
  gen: {
    values: '1g, 40g',
    parse: (text) => word(['1g', '40g'])(/^(1\/10g|10g)$/i.test(text) ? '1g' : text),
    test: (card, ranges) => is(card.is40g ? 1 : 0, ranges),
  },
  vlan: {
    values: 'numbers from 0 to 4095 and ranges such as 100-199',
    parse: vlans,
    test: (card, ranges) => is(card.vlan, ranges),
  },
  id: {
    values: 'card ids, or the beginning of one such as 02:00:00:*',
    parse: ids,
    // A 40G card has the odd address too.
    test: (card, ranges) => is(card.number, ranges) || (card.is40g && is(card.number + 1 - (card.number % 2), ranges)),
  },
  partner: {
    values: 'card ids, or the beginning of one such as 02:00:00:*',
    parse: ids,
    test: (card, ranges) => card.partners.some((partner) => is(partner, ranges)),
  },
  vendor: {
    values: 'hexadecimal PCI ids such as 8086',
    parse: hexadecimal,
    test: (card, ranges) => isHex(card.vendor, ranges),
  },
  device: {
    values: 'hexadecimal PCI ids such as 1572',
    parse: hexadecimal,
    test: (card, ranges) => isHex(card.device, ranges),
  },
  int: {
    values: 'a mask of interrupt bits such as 0x04',
    parse: mask,
    test: (card, ranges) => ranges.some(([bits]) => (card.int & bits) !== 0),
  },
}

// Throws an Error whose message is for people. The result says whether a card matches.
export function parseFilter(text) {
  const tests = text.split(' ').filter(Boolean).map((given) => {
    const match = /^([^=]+?)(!?)=(.*)$/s.exec(given)
    if (!match || match[1] === '') throw new Error(`"${given}" is no word of a filter: write KEY=VALUE or KEY!=VALUE`)
    const [, name, not, values] = match
    const key = Object.hasOwn(KEYS, name) ? KEYS[name] : null
    if (!key) throw new Error(`a filter has no key "${name}"; keys: ${Object.keys(KEYS).join(', ')}`)
    const ranges = values.split(',').map((value) => {
      const range = key.parse(value)
      if (!range) throw new Error(`"${value}" is no value of ${name}: ${key.values}`)
      return range
    })
    return { key, ranges, negated: not !== '' }
  })
  return {
    text: text.trim(),
    isEmpty: tests.length === 0,
    matches: (card) => tests.every(({ key, ranges, negated }) => key.test(card, ranges) !== negated),
  }
}

// The filter with this word instead of any other for its key; without a value the key goes.
export function withWord(text, name, value) {
  const rest = text.split(' ').filter((given) => given && !given.startsWith(`${name}=`) && !given.startsWith(`${name}!=`))
  return [...rest, ...(value === null ? [] : [`${name}=${value}`])].join(' ')
}

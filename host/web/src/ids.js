// Card ids as numbers of 48 bits, which a double holds, and as text; and the numbers that people write.

export const formatId = (number) => number.toString(16).padStart(12, '0').replace(/..(?=.)/g, '$&:')

// All usual spellings: 02:00:00:00:10:00, 02-00-..., 0200.0000.1000, 020000001000. Null for anything else.
export function parseId(text) {
  const id = text.replace(/^0x/i, '')
  const known = /^(?:[\da-f]{12}|[\da-f]{2}(?::[\da-f]{2}){5}|[\da-f]{2}(?:-[\da-f]{2}){5}|[\da-f]{4}(?:\.[\da-f]{4}){2})$/i
  return known.test(id) ? parseInt(id.replace(/[:.-]/g, ''), 16) : null
}

// The same for the spelling of fxmd alone, 02:00:00:00:10:00, of which a list has tens of thousands.
export function numberOfId(id) {
  let value = 0
  for (let at = 0; at < 17; ++at) {
    const code = id.charCodeAt(at)
    if (code !== 58) value = value * 16 + (code < 58 ? code - 48 : code - 87)
  }
  return value
}

// A number of 32 bits as C writes it: decimal, 0x hexadecimal, or octal with a leading 0. Null for anything else.
export function parseNumber(text) {
  const forms = [[/^0x([\da-f]+)$/i, 16], [/^0([0-7]+)$/, 8], [/^(0|[1-9]\d*)$/, 10]]
  for (const [form, base] of forms) {
    const match = form.exec(text)
    if (match) {
      const value = parseInt(match[1], base)
      return value <= 0xffffffff ? value : null
    }
  }
  return null
}

export const hex = (value, digits = 8) => value.toString(16).padStart(digits, '0')

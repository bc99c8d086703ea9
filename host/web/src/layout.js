// Where each card's cell stands on the map: groups in rows ("shelves"), and the cells of a group in rows of their own.
// Nothing here draws.

const LABEL = 15 // height of a group's name
const SIZES = [80, 64, 50, 40, 32, 26, 22, 18, 15, 12, 10, 8, 7, 6, 5, 4, 3, 2]
const GAP = 6 // between groups
const MOST_LABELS = 400 // groups; with more, names would only be noise
const LEAST_WIDTH = 58 // of a group with a name
const SHAPES = [1.8, 1.2, 2.6, 4] // width to height of a group; the first that fits is taken

function groupsOf(cards, mode) {
  const groups = new Map()
  const add = (key, card) => {
    const group = groups.get(key)
    if (group) group.push(card)
    else groups.set(key, [card])
  }
  if (mode === 'vlan') {
    for (const card of cards) add(card.vlan, card)
    return [...groups].sort(([a], [b]) => a - b).map(([vlan, members]) => ({ name: `vlan ${vlan}`, members }))
  }
  // A server first, and then its cards; in the order of the servers.
  const servers = new Set()
  for (const card of cards) {
    if (card.kind === 0) {
      servers.add(card.number)
      add(card.number, card)
    }
  }
  const loose = []
  for (const card of cards) {
    if (card.kind === 0) continue
    if (card.partners.length > 0 && servers.has(card.partners[0])) add(card.partners[0], card)
    else loose.push(card)
  }
  const made = [...groups.values()].map((members) => ({ name: members[0].id, members }))
  if (loose.length > 0) made.push({ name: 'no server', members: loose })
  return made
}

// The shelves for this size of a cell and this shape of a group, or null if they are higher than `most`.
function place(groups, size, shape, width, label, most) {
  const shelves = []
  let shelf = { y: 0, height: 0, groups: [] }
  let x = 0
  for (const { name, members } of groups) {
    const least = label ? LEAST_WIDTH : size
    const wide = Math.max(Math.ceil(Math.sqrt(members.length * shape)), Math.floor(least / size), 1)
    const columns = Math.min(wide, Math.max(1, Math.floor(width / size)))
    const rows = Math.ceil(members.length / columns)
    const boxWidth = Math.max(Math.min(columns, members.length) * size, least)
    if (x > 0 && x + boxWidth > width) {
      shelves.push(shelf)
      shelf = { y: shelf.y + shelf.height + GAP, height: 0, groups: [] }
      x = 0
    }
    shelf.groups.push({ name, members, x, columns, rows, width: boxWidth })
    shelf.height = Math.max(shelf.height, rows * size + label)
    if (shelf.y + shelf.height > most) return null
    x += boxWidth + GAP
  }
  if (shelf.groups.length > 0) shelves.push(shelf)
  return shelves
}

// `zoom` is the number of sizes above the largest one that fits.
export function layOut(cards, mode, width, height, zoom) {
  const groups = groupsOf(cards, mode)
  const label = groups.length <= MOST_LABELS ? LABEL : 0
  // Larger cells than these do not even fit without any gap.
  const first = SIZES.findIndex((size) => size * size * cards.length <= width * height)
  const heightOf = (shelves) => (shelves.length > 0 ? shelves.at(-1).y + shelves.at(-1).height : 0)
  let fitting = SIZES.length - 1
  let shape = SHAPES[0]
  let isFound = false
  search: for (let i = Math.max(first, 0); first >= 0 && i < SIZES.length; ++i) {
    for (const candidate of SHAPES) {
      if (!place(groups, SIZES[i], candidate, width, label, height)) continue
      fitting = i
      shape = candidate
      isFound = true
      break search
    }
  }
  // What must scroll shall scroll as little as it can.
  if (!isFound) {
    const heights = SHAPES.map((candidate) => heightOf(place(groups, SIZES[fitting], candidate, width, label, Infinity)))
    shape = SHAPES[heights.indexOf(Math.min(...heights))]
  }
  const size = SIZES[Math.max(0, fitting - zoom)]
  const shelves = place(groups, size, shape, width, label, Infinity)
  return { shelves, size, label, groups: groups.length, height: heightOf(shelves), largest: fitting - zoom <= 0 }
}

// The last shelf that begins above `y`.
function shelfAt(layout, y) {
  let low = 0
  let high = layout.shelves.length - 1
  while (low < high) {
    const middle = (low + high + 1) >> 1
    if (layout.shelves[middle].y <= y) low = middle
    else high = middle - 1
  }
  return low
}

export function groupAt(layout, x, y) {
  const shelf = layout.shelves[shelfAt(layout, y)]
  const group = shelf?.groups.find((candidate) => x >= candidate.x && x < candidate.x + candidate.width)
  return group && y >= shelf.y && y <= shelf.y + shelf.height ? { shelf, group } : null
}

export function cardAt(layout, x, y) {
  const found = groupAt(layout, x, y)
  if (!found) return null
  const { shelf, group } = found
  const column = Math.floor((x - group.x) / layout.size)
  const row = Math.floor((y - shelf.y - layout.label) / layout.size)
  return row < 0 || column >= group.columns ? null : group.members[row * group.columns + column] ?? null
}

// Calls `visit(card, x, y)` for each cell between two heights.
export function eachCell(layout, top, bottom, visit, visitGroup) {
  const { size, label, shelves } = layout
  for (let i = shelfAt(layout, top); i < shelves.length && shelves[i].y < bottom; ++i) {
    const shelf = shelves[i]
    for (const group of shelf.groups) {
      visitGroup?.(group, shelf)
      const begin = shelf.y + label
      const firstRow = Math.max(0, Math.floor((top - begin) / size))
      const lastRow = Math.min(group.rows - 1, Math.floor((bottom - begin) / size))
      for (let row = firstRow; row <= lastRow; ++row) {
        const end = Math.min((row + 1) * group.columns, group.members.length)
        for (let at = row * group.columns, x = group.x; at < end; ++at, x += size) visit(group.members[at], x, begin + row * size)
      }
    }
  }
}

// Where a card stands, or null.
export function findCell(layout, card) {
  for (const shelf of layout.shelves) {
    for (const group of shelf.groups) {
      const at = group.members.indexOf(card)
      if (at >= 0) return { group, at, x: group.x + (at % group.columns) * layout.size, y: shelf.y + layout.label + Math.floor(at / group.columns) * layout.size }
    }
  }
  return null
}

// The card that the arrow keys go to from this one: its neighbour in the order of the map, or the next row of its group.
export function neighbour(layout, card, key) {
  const all = layout.shelves.flatMap((shelf) => shelf.groups)
  const cell = card && findCell(layout, card)
  if (!cell) return all[0]?.members[0] ?? null
  const { group, at } = cell
  const step = { ArrowLeft: -1, ArrowRight: 1, ArrowUp: -group.columns, ArrowDown: group.columns }[key]
  const next = group.members[at + step]
  if (next) return next
  const other = all[all.indexOf(group) + Math.sign(step)]
  return other ? (step > 0 ? other.members[0] : other.members.at(-1)) : card
}

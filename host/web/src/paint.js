// Draws a layout: cells of a few pixels as raw pixels, because there are many; larger ones as shapes that can be told apart
// without their colours.
import { eachCell } from './layout.js'

const SHAPES_FROM = 7 // px of a cell
const NAMES_FROM = 64 // the end of the id is written below a cell of this size

// Colours come from the style sheet, so that dark and light have one source.
export function colours(element) {
  const style = getComputedStyle(element)
  const value = (name) => style.getPropertyValue(name).trim()
  return {
    health: ['--well', '--degraded', '--error', '--lost', '--unmonitored', '--silent'].map(value),
    text: value('--muted'),
    focus: value('--focus'),
    ground: value('--panel'),
  }
}

// "#rrggbb" as a pixel of little-endian RGBA.
function pixel(colour) {
  const rgb = parseInt(colour.slice(1), 16)
  return (0xff000000 | ((rgb & 0xff) << 16) | (rgb & 0xff00) | (rgb >> 16)) >>> 0
}

export class Painter {
  constructor(canvas) {
    this.canvas = canvas
    // In memory, as its shapes: pixels and copies go through no other process.
    this.context = canvas.getContext('2d', { alpha: false, willReadFrequently: true })
  }

  resize(width, height, scale) {
    this.scale = scale
    this.canvas.width = Math.max(1, Math.round(width * scale))
    this.canvas.height = Math.max(1, Math.round(height * scale))
    this.canvas.style.width = `${width}px`
    this.canvas.style.height = `${height}px`
    this.image = null
  }

  // The part of the layout that begins at `top`; `marked` are cards with a frame.
  draw(layout, top, colour, marked) {
    const { context, canvas, scale } = this
    const bottom = top + canvas.height / scale
    const labels = []
    const noteGroup = (group, shelf) => layout.label && labels.push([group, shelf])
    const frames = []
    const note = (card, x, y) => marked.includes(card) && frames.push([x, y - top])
    if (layout.size < SHAPES_FROM) this.drawPixels(layout, top, bottom, colour, note, noteGroup)
    else this.drawShapes(layout, top, bottom, colour, note, noteGroup)
    context.setTransform(scale, 0, 0, scale, 0, 0)
    context.font = '11px system-ui, sans-serif'
    context.textBaseline = 'top'
    context.fillStyle = colour.text
    for (const [group, shelf] of labels) {
      const count = group.members.length > 1 ? `${group.name} \u00b7 ${group.members.length}` : group.name
      context.fillText(fit(context, [count, group.name], group.width), group.x, shelf.y - top + 1, group.width)
    }
    context.strokeStyle = colour.focus
    context.lineWidth = 2
    const edge = Math.max(layout.size, 6)
    for (const [x, y] of frames) context.strokeRect(x - 1, y - 1, edge + 1, edge + 1)
  }

  drawPixels(layout, top, bottom, colour, note, noteGroup) {
    const { context, canvas, scale } = this
    this.image ??= context.createImageData(canvas.width, canvas.height)
    const { width, height } = this.image
    const pixels = new Uint32Array(this.image.data.buffer)
    pixels.fill(pixel(colour.ground))
    const palette = colour.health.map(pixel)
    const gap = layout.size > 3 ? 1 : 0
    const fill = (x, y, size, value) => {
      const left = Math.max(0, Math.round(x * scale))
      const right = Math.min(width, Math.round((x + size) * scale))
      const end = Math.min(height, Math.round((y + size) * scale))
      for (let row = Math.max(0, Math.round(y * scale)); row < end; ++row) pixels.fill(value, row * width + left, row * width + right)
    }
    // What is not well must be seen among thousands: it is drawn last, and not smaller than four pixels.
    const bad = []
    const larger = Math.max(layout.size - gap, 4)
    eachCell(layout, top, bottom, (card, x, y) => {
      if (card.health !== 0) bad.push(card, x, y)
      else fill(x, y - top, layout.size - gap, palette[0])
      note(card, x, y)
    }, noteGroup)
    for (const severity of [4, 1, 3, 2]) {
      for (let i = 0; i < bad.length; i += 3)
        if (bad[i].health === severity) fill(bad[i + 1], bad[i + 2] - top, severity === 4 ? layout.size - gap : larger, palette[severity])
    }
    context.setTransform(1, 0, 0, 1, 0, 0)
    context.putImageData(this.image, 0, 0)
  }

  // A picture of each shape is made once, and then copied for each cell.
  drawShapes(layout, top, bottom, colour, note, noteGroup) {
    const { context, canvas, scale } = this
    const isNamed = layout.size >= NAMES_FROM
    const size = isNamed ? layout.size - 18 : layout.size - 2
    if (this.spritesFor !== `${size} ${scale} ${colour.health}`) {
      this.sprites = [0, 1].flatMap((kind) => colour.health.map((fill, health) => sprite(kind, health, fill, colour.ground, size, scale)))
      this.spritesFor = `${size} ${scale} ${colour.health}`
    }
    context.setTransform(1, 0, 0, 1, 0, 0)
    context.fillStyle = colour.ground
    context.fillRect(0, 0, canvas.width, canvas.height)
    const names = []
    eachCell(layout, top, bottom, (card, x, height) => {
      const y = height - top
      note(card, x, height)
      if (isNamed) names.push([card.id.slice(9), x, y + size + 3])
      context.drawImage(this.sprites[card.kind * colour.health.length + card.health], Math.round(x * scale), Math.round(y * scale))
    }, noteGroup)
    context.setTransform(scale, 0, 0, scale, 0, 0)
    context.font = '11px ui-monospace, monospace'
    context.textBaseline = 'top'
    context.fillStyle = colour.text
    for (const [name, x, y] of names) context.fillText(name, x, y)
  }
}

// FXSV cards are squares, FXIO cards are round. Degraded: the lower half; error: a bar; lost: a frame; unmonitored: a dot;
// silent: a small frame.
function sprite(kind, health, fill, ground, size, scale) {
  const canvas = document.createElement('canvas')
  canvas.width = Math.ceil(size * scale)
  canvas.height = canvas.width
  const context = canvas.getContext('2d', { willReadFrequently: true })
  context.scale(scale, scale)
  context.fillStyle = fill
  context.strokeStyle = fill
  context.lineWidth = 1.5
  const outline = (at, edge) => {
    context.beginPath()
    if (kind === 0) context.rect(at, at, edge, edge)
    else context.arc(size / 2, size / 2, edge / 2, 0, 2 * Math.PI)
  }
  switch (health) {
    case 1:
      outline(0.75, size - 1.5)
      context.stroke()
      context.clip()
      context.fillRect(0, size / 2, size, size / 2)
      break
    case 2:
      outline(0, size)
      context.fill()
      context.fillStyle = ground
      context.fillRect(size / 2 - size / 10, size / 5, size / 5, (3 * size) / 5)
      break
    case 3:
      outline(0.75, size - 1.5)
      context.stroke()
      break
    case 4:
      outline(size / 3, size / 3)
      context.fill()
      break
    case 5:
      outline(size / 4, size / 2)
      context.stroke()
      break
    default:
      outline(0, size)
      context.fill()
  }
  return canvas
}

// The first of the texts that fits.
function fit(context, texts, width) {
  return texts.find((text) => context.measureText(text).width <= width) ?? texts.at(-1)
}

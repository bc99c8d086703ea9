// Curves over the minutes of the history.
import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks'
import uPlot from 'uplot'
import { get } from './api.js'
import { OWN_HEALTH } from './filter.js'
import { clock, date } from './words.js'

const MINUTE = 60000
const RANGES = [['15 min', 15], ['1 h', 60], ['6 h', 360], ['24 h', 1440], ['7 d', 10080], ['30 d', 43200]]

// What is drawn, from the sums of a minute. `css` names the colour in the style sheet.
const PLOTS = [
  { title: 'Cards', series: OWN_HEALTH.map((word) => ({ label: word, css: `--${word}`, value: (minute) => minute[word] })) },
  {
    title: 'Frames / s',
    series: [0, 1].map((port) => ({ label: `port ${port}`, css: ['--curve1', '--curve2'][port], value: (minute) => (minute.frames[port] ?? 0) / 60 })),
  },
  { title: 'Events / min', series: [{ label: 'events', css: '--curve1', value: (minute) => minute.events }] },
  { title: 'Register read, \u00b5s', series: [{ label: 'mean', css: '--curve2', value: (minute) => minute.register_us }] },
]

// The columns of a plot. Minutes without a record, when fxmd did not run, break the curve.
function columns(minutes, series) {
  const made = [[], ...series.map(() => [])]
  let last = null
  for (const minute of minutes) {
    if (last !== null && minute.time_ms - last > 1.5 * MINUTE) {
      made[0].push((last + MINUTE) / 1000)
      series.forEach((_, i) => made[i + 1].push(null))
    }
    made[0].push(minute.time_ms / 1000)
    series.forEach(({ value }, i) => made[i + 1].push(value(minute)))
    last = minute.time_ms
  }
  return made
}

function Plot({ plot, minutes, span, theme }) {
  const box = useRef()
  const chart = useRef()
  useLayoutEffect(() => {
    const colour = (name) => getComputedStyle(box.current).getPropertyValue(name).trim()
    const axis = { stroke: colour('--muted'), grid: { stroke: colour('--line'), width: 1 }, ticks: { show: false }, font: '11px system-ui' }
    const size = () => ({ width: Math.max(120, box.current.clientWidth), height: 130 })
    // 24 hours, or the day where a range has several.
    const times = (_, splits) => splits.map((s) => (span > 1440 ? date(1000 * s).slice(5, 10) : clock(1000 * s).slice(0, 5)))
    chart.current = new uPlot({
      ...size(),
      series: [{ label: 'time' }, ...plot.series.map(({ label, css }) => ({ label, stroke: colour(css), width: 1.5, points: { size: 4 } }))],
      axes: [{ ...axis, values: times, space: 60, size: 26 }, { ...axis, size: 48 }],
      scales: { x: { range: () => [Date.now() / 1000 - span * 60, Date.now() / 1000] }, y: { range: (_, least, most) => [0, Math.max(1, most * 1.1)] } },
      legend: { show: true, live: true },
      cursor: { y: false, drag: { x: false, y: false } },
    }, columns(minutes, plot.series), box.current)
    const observer = new ResizeObserver(() => chart.current.setSize(size()))
    observer.observe(box.current)
    return () => {
      observer.disconnect()
      chart.current.destroy()
    }
  }, [theme, span])
  useEffect(() => chart.current.setData(columns(minutes, plot.series)), [minutes])
  return <figure class="plot"><figcaption>{plot.title}</figcaption><div ref={box} /></figure>
}

export function Curves({ theme, boot }) {
  const [span, setSpan] = useState(60)
  const [minutes, setMinutes] = useState([])
  const [problem, setProblem] = useState('')
  useEffect(() => {
    const load = () => {
      if (document.hidden || !boot) return
      get(`/v1/history/minutes?since_ms=${Date.now() - span * MINUTE}`).then(
        (found) => { setMinutes(found.minutes); setProblem('') },
        (failure) => setProblem(failure.message),
      )
    }
    load()
    const timer = setInterval(load, MINUTE / 4)
    return () => clearInterval(timer)
  }, [span, boot])
  return (
    <section class="panel curves" aria-label="Curves">
      <div class="bar">
        <h2>Curves</h2>
        <div class="choice" role="group" aria-label="Time that the curves cover">
          {RANGES.map(([words, value]) => (
            <button type="button" aria-pressed={span === value} onClick={() => setSpan(value)}>{words}</button>
          ))}
        </div>
      </div>
      {problem && <p class="muted">{problem}</p>}
      <div class="plots" tabIndex={0} role="group" aria-label="Curves">{PLOTS.map((plot) => <Plot plot={plot} minutes={minutes} span={span} theme={theme} />)}</div>
    </section>
  )
}

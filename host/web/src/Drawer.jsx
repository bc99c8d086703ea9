// One card: its record, its ports as links, registers, EEPROM, events, and what may be done to it.
import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks'
import { Outcome, useAction } from './action.jsx'
import { get, post, put, remove } from './api.js'
import { ask } from './Ask.jsx'
import { Eeprom } from './Eeprom.jsx'
import { EventLine } from './Events.jsx'
import { HEALTH } from './filter.js'
import { hex } from './ids.js'
import { Registers } from './Registers.jsx'
import { date, duration } from './words.js'

const FRESH = 1000 // ms between two looks at the record
const MOST_EVENTS = 100

// The record as fxmd has it now; null: there is no such card.
function useRecord(id) {
  const [record, setRecord] = useState(undefined)
  useEffect(() => {
    let isOld = false
    const load = async () => {
      if (document.hidden) return
      try {
        const found = await get(`/v1/cards/${id}`)
        if (!isOld) setRecord(found)
      } catch (failure) {
        if (!isOld && failure.status === 404) setRecord(null)
      }
    }
    const timer = setInterval(load, FRESH)
    load()
    return () => { isOld = true; clearInterval(timer) }
  }, [id])
  return record
}

const flag = (value) => (value === null ? '' : value ? 'yes' : 'no')

// What says why the card is not well.
function reasons(record) {
  const made = []
  if (!record.monitored) made.push('monitoring has been stopped; the record is frozen')
  if (record.int_vector !== 0) made.push(`interrupt bits ${hex(record.int_vector, 2)}`)
  const channels = Object.entries(record.channels)
  const down = channels.filter(([, state]) => state === 'down').map(([name]) => name)
  if (channels.every(([, state]) => state !== 'up')) made.push('no channel is up')
  else if (down.length > 0) made.push(`channels down: ${down.join(', ')}`)
  record.link_faults?.forEach((fault, link) => { if (fault) made.push(`link ${link} reports a fault`) })
  return made
}

function rows(record) {
  const time = (ms) => (ms === null ? 'never' : date(ms))
  return [
    ['VLAN', record.vlan],
    ['Frame layout', record.layout],
    ['Interrupt vector', hex(record.int_vector, 2)],
    ['Status bytes', record.status.map((byte) => hex(byte, 2)).join(' ')],
    ['Protocol version', record.version],
    ['Flow id, link status', `${hex(record.flow_id, 2)}, ${hex(record.link_status, 2)}`],
    ['Port links', `port 0 ${flag(record.port0_link)}, port 1 ${flag(record.port1_link)}`],
    ['Power, UID switch', `${flag(record.power)}, ${flag(record.uid_switch)}`],
    ...(record.class === 'fxio'
      ? [
          ['PCI device', `${record.vendor}:${record.device} class ${record.pci_class}`],
          ['Multi-root', record.multi_root === null ? 'no' : `resource ${record.multi_root}`],
          ['Connected', flag(record.connected)],
          ['Sub-state', record.substate.map((byte) => hex(byte, 2)).join(' ')],
          ['PCIe presence', flag(record.pcie_presence)],
          ['Link faults', record.link_faults.map(flag).join(', ')],
        ]
      : [['Buses of the up port', `${record.up_port.primary_bus}, ${record.up_port.secondary_bus}, ${record.up_port.subordinate_bus}`]]),
    ['Last announcement', record.seen_ms === null ? 'never' : `${date(record.seen_ms)} (${duration(Date.now() - record.seen_ms)} ago)`],
    ['Last change', time(record.updated_ms)],
  ]
}

const Channels = ({ record }) => (
  <table class="small">
    <thead><tr><th scope="col">Channel</th><th scope="col">State</th><th scope="col">Last frame</th></tr></thead>
    <tbody>
      {Object.entries(record.channels).map(([name, state]) => (
        <tr>
          <th scope="row">{name}</th>
          <td class={state === 'down' ? 'problem' : ''}>{state ?? '\u2013'}</td>
          <td>{record.received_ms[name] === null ? '' : date(record.received_ms[name])}</td>
        </tr>
      ))}
    </tbody>
  </table>
)

function Partner({ id, fabric, onOpen }) {
  if (id === null) return null
  const card = fabric.cards.get(id)
  return (
    <button type="button" class="link" disabled={!card} onClick={() => onOpen(id)}>
      {card && <span class={`swatch ${HEALTH[card.health]}`} />}<code>{id}</code>{card ? '' : ' (not seen)'}
    </button>
  )
}

function Partners({ record, fabric, onOpen }) {
  if (record.class === 'fxio')
    return <p>Server: {record.server === null ? 'none' : <Partner id={record.server} fabric={fabric} onOpen={onOpen} />}</p>
  const named = record.down_ports.filter(({ partner, connected }) => partner !== null || connected)
  if (named.length === 0) return <p class="muted">None of the {record.down_port_count} down ports names a partner.</p>
  return (
    <table class="small">
      <thead><tr><th scope="col">Down port</th><th scope="col">Partner</th><th scope="col">State</th><th scope="col">Buses</th></tr></thead>
      <tbody>
        {named.map(({ port, partner, connected, status, bridge }) => (
          <tr>
            <th scope="row">{port}</th>
            <td><Partner id={partner} fabric={fabric} onOpen={onOpen} /></td>
            <td>{connected ? 'connected' : 'not connected'} ({status.map((byte) => hex(byte, 2)).join(' ')})</td>
            <td>{bridge ? `${bridge.primary_bus}, ${bridge.secondary_bus}, ${bridge.subordinate_bus}` : ''}</td>
          </tr>
        ))}
      </tbody>
    </table>
  )
}

const targetOf = (record) => `${record.id} (${record.class.toUpperCase()} ${record.generation}, vlan ${record.vlan})`

function Actions({ record, role, onGone }) {
  const [state, run] = useAction()
  const [vlan, setVlan] = useState('')
  const path = `/v1/cards/${record.id}`
  const target = targetOf(record)

  const setCardVlan = async () => {
    const trial = await put(`${path}/vlan`, { vlan: Number(vlan), dry_run: true })
    const agreed = await ask({ title: 'Set the VLAN', target, action: `Move to vlan ${trial.new}`, details: <p>{`vlan ${trial.old} \u2192 ${trial.new}. The card leaves its partners until they are on that VLAN, too.`}</p> })
    if (!agreed) return ''
    const done = await put(`${path}/vlan`, { vlan: Number(vlan), verify: true })
    return `vlan ${done.old} \u2192 ${done.new}`
  }
  const reset = async () => {
    const trial = await post(`${path}/reset`, { status: 1, dry_run: true })
    const agreed = await ask({
      title: 'Reset cards', target, typed: String(record.vlan), action: 'Reset',
      details: (
        <>
          <p>Resets every card that listens on vlan {record.vlan}: {trial.affected.length} {trial.affected.length === 1 ? 'card' : 'cards'}.</p>
          <ul class="affected">{trial.affected.slice(0, 20).map((id) => <li><code>{id}</code></li>)}{trial.affected.length > 20 && <li>and {trial.affected.length - 20} more</li>}</ul>
        </>
      ),
    })
    if (!agreed) return ''
    await post(`${path}/reset`, { status: 1 })
    return 'The reset has been sent.'
  }
  const monitor = async (monitored) => {
    if (!monitored && !(await ask({ title: 'Stop monitoring', target, action: 'Stop monitoring', details: <p>Its record is frozen, and it raises no more events.</p> })))
      return ''
    await put(`${path}/monitor`, { monitored })
    return monitored ? 'The card is monitored again.' : 'Monitoring has been stopped.'
  }
  const drop = async () => {
    if (!(await ask({ title: 'Delete the card', target, action: 'Delete', details: <p>It comes back when it announces itself.</p> }))) return ''
    await remove(path)
    onGone()
    return ''
  }
  const unlock = async () => {
    const details = <p>Whoever holds the lock may be in the middle of a write. Take it only from a manager that is gone.</p>
    if (!(await ask({ title: 'Take the EEPROM lock away', target, action: 'Take the lock', details }))) return ''
    await remove(`${path}/eeprom-lock`)
    return 'The lock is free.'
  }
  return (
    <section aria-label="Actions">
      <div class="buttons">
        <form onSubmit={(event) => { event.preventDefault(); run(setCardVlan) }}>
          <label>VLAN <input class="short" inputMode="numeric" pattern="[0-9]+" required value={vlan} placeholder={String(record.vlan)} onInput={(event) => setVlan(event.target.value)} /></label>
          <button type="submit" disabled={state.busy}>Set</button>
        </form>
        <button type="button" disabled={state.busy} onClick={() => run(() => monitor(!record.monitored))}>{record.monitored ? 'Stop monitoring' : 'Monitor again'}</button>
        <button type="button" disabled={state.busy} onClick={() => run(reset)}>Reset</button>
        <button type="button" disabled={state.busy} onClick={() => run(drop)}>Delete</button>
        {role === 'admin' && <button type="button" disabled={state.busy} onClick={() => run(unlock)}>Unlock EEPROM</button>}
      </div>
      <Outcome state={state} />
    </section>
  )
}

function CardEvents({ id, fabric }) {
  const [past, setPast] = useState([])
  useEffect(() => {
    setPast([])
    get(`/v1/history?card=${id}&newest=true&limit=${MOST_EVENTS}`).then((found) => setPast(found.events), () => {})
  }, [id])
  const known = new Set(past.map(({ seq }) => seq))
  const live = fabric.events.filter((event) => event.card === id && !known.has(event.seq))
  const shown = [...past, ...live].sort((a, b) => b.seq - a.seq).slice(0, MOST_EVENTS)
  return shown.length === 0 ? <p class="muted">Nothing has happened to it yet.</p> : <ol class="short-list" tabIndex={0} aria-label="Events of the card">{shown.map((event) => <EventLine key={event.seq} event={event} />)}</ol>
}

export function Drawer({ id, fabric, role, status, registers, onOpen, onClose }) {
  const record = useRecord(id)
  const box = useRef()
  useLayoutEffect(() => {
    const before = document.activeElement
    box.current.focus()
    return () => before?.isConnected && before.focus()
  }, [])
  useEffect(() => { box.current.scrollTop = 0 }, [id])
  const mayWrite = role === 'operate' || role === 'admin'
  return (
    <aside class="drawer panel" ref={box} tabIndex={-1} aria-label={`Card ${id}`} onKeyDown={(event) => event.key === 'Escape' && onClose()}>
      <header class="bar">
        <h2><code>{id}</code></h2>
        {record && <span>{record.class.toUpperCase()} {record.generation}</span>}
        {record && <span class="health"><span class={`swatch ${record.health}`} />{record.health}</span>}
        <button type="button" class="right" aria-label="Close" onClick={onClose}>{'\u2715'}</button>
      </header>
      {record === null && <p class="empty">There is no such card. It is shown when it announces itself.</p>}
      {record && (
        <div class="details">
          {reasons(record).length > 0 && <p class="problem">{reasons(record).join('; ')}</p>}
          {mayWrite && <Actions key={id} record={record} role={role} onGone={onClose} />}
          <h3>Connections</h3>
          <Partners record={record} fabric={fabric} onOpen={onOpen} />
          <h3>Channels</h3>
          <Channels record={record} />
          <h3>Record</h3>
          <dl>{rows(record).map(([name, value]) => <div><dt>{name}</dt><dd>{value}</dd></div>)}</dl>
          <h3>Registers</h3>
          <Registers key={id} record={record} mayWrite={mayWrite} named={registers} target={targetOf(record)} />
          <h3>EEPROM</h3>
          <Eeprom key={id} record={record} mayWrite={mayWrite} isWriter={status?.eeprom_writer} jobs={fabric.jobs} target={targetOf(record)} />
          <h3>Events</h3>
          <CardEvents key={id} id={id} fabric={fabric} />
        </div>
      )}
    </aside>
  )
}

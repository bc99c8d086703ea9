// Registers of a card, by name or by address.
import { useState } from 'preact/hooks'
import { Outcome, useAction } from './action.jsx'
import { get, send } from './api.js'
import { ask } from './Ask.jsx'
import { hex, parseNumber } from './ids.js'

const addressWords = (address) => `0x${hex(address, 4)}`
const fieldWords = (fields) => fields.map(({ name, value, text }) => `${name} ${text ?? value}`).join(', ')

export function Registers({ record, mayWrite, named, target }) {
  const known = named.filter(({ generation }) => generation === null || generation === record.generation)
  const [address, setAddress] = useState('eeprom.lock')
  const [value, setValue] = useState('')
  const [mask, setMask] = useState('')
  const [verify, setVerify] = useState(true)
  const [read, setRead] = useState([]) // the newest first
  const [state, run] = useAction()
  const path = `/v1/cards/${record.id}/registers/${encodeURIComponent(address.trim())}`

  const take = (found) => setRead((old) => [found, ...old.filter((other) => other.address !== found.address)].slice(0, 32))
  const readOne = async () => {
    const found = await get(path)
    take(found)
    return `read in ${found.duration_us} \u00b5s`
  }
  const readAll = async () => {
    for (const { name } of [...known].reverse()) take(await get(`/v1/cards/${record.id}/registers/${name}`))
    return ''
  }
  const write = async () => {
    const wanted = parseNumber(value.trim())
    if (wanted === null) throw new Error(`"${value}" is not a number of 32 bits, such as 0xcafe`)
    const bits = mask.trim() === '' ? null : parseNumber(mask.trim())
    if (mask.trim() !== '' && bits === null) throw new Error(`"${mask}" is not a mask of 32 bits, such as 0x0c`)
    const method = bits === null ? 'PUT' : 'PATCH'
    const body = { value: wanted, verify, ...(bits === null ? {} : { mask: bits }) }
    const trial = await (await send(method, path, { body: { ...body, dry_run: true } })).json()
    const words = `${trial.name ? `${trial.name} ` : ''}${addressWords(trial.address)}: 0x${hex(trial.old)} \u2192 0x${hex(trial.new)}`
    if (!(await ask({ title: 'Write a register', target, action: 'Write', details: <p><code>{words}</code></p> }))) return ''
    const done = await (await send(method, path, { body })).json()
    take(await get(path))
    return `0x${hex(done.old)} \u2192 0x${hex(done.new)}${done.verified ? ', verified' : ''}`
  }
  return (
    <section aria-label="Registers">
      <form class="buttons" onSubmit={(event) => { event.preventDefault(); run(readOne) }}>
        <label>
          Register <input list="register-names" value={address} onInput={(event) => setAddress(event.target.value)} autocomplete="off" spellcheck={false} />
        </label>
        <datalist id="register-names">{known.map(({ name, purpose }) => <option value={name}>{purpose}</option>)}</datalist>
        <button type="submit" disabled={state.busy}>Read</button>
        <button type="button" disabled={state.busy} onClick={() => run(readAll)}>Read all that have a name</button>
      </form>
      {mayWrite && (
        <form class="buttons" onSubmit={(event) => { event.preventDefault(); run(write) }}>
          <label>Value <input class="short" required value={value} placeholder="0xcafe" onInput={(event) => setValue(event.target.value)} autocomplete="off" /></label>
          <label>Mask <input class="short" value={mask} placeholder="all bits" onInput={(event) => setMask(event.target.value)} autocomplete="off" /></label>
          <label><input type="checkbox" checked={verify} onChange={(event) => setVerify(event.target.checked)} /> verify</label>
          <button type="submit" disabled={state.busy}>Write</button>
        </form>
      )}
      <Outcome state={state} />
      {read.length > 0 && (
        <table class="small registers">
          <thead><tr><th scope="col">Address</th><th scope="col">Name</th><th scope="col">Value</th><th scope="col">Fields</th></tr></thead>
          <tbody>
            {read.map((found) => (
              <tr>
                <th scope="row"><code>{addressWords(found.address)}</code></th>
                <td>{found.name ?? ''}</td>
                <td><code>0x{hex(found.value)}</code></td>
                <td>{fieldWords(found.fields)}</td>
              </tr>
            ))}
          </tbody>
        </table>
      )}
    </section>
  )
}

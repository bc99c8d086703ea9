// The EEPROM of a card, and the jobs that reach it.
import { useRef } from 'preact/hooks'
import { Outcome, useAction } from './action.jsx'
import { get, post, remove } from './api.js'
import { ask } from './Ask.jsx'
import { hex } from './ids.js'
import { number, when } from './words.js'

const SIZE = 0x800 // bytes; a file holds the words from address 0 on, least significant byte first
const LOOK = 200 // ms between two looks at a job
const MOST_JOBS = 8

function save(words, name) {
  const bytes = new DataView(new ArrayBuffer(4 * words.length))
  words.forEach((word, i) => bytes.setUint32(4 * i, word, true))
  const link = document.createElement('a')
  link.href = URL.createObjectURL(new Blob([bytes.buffer], { type: 'application/octet-stream' }))
  link.download = name
  link.click()
  setTimeout(() => URL.revokeObjectURL(link.href), 10000)
}

const fileName = (id, ending) => `${id.replaceAll(':', '')}-${new Date().toISOString().slice(0, 16).replace(/[-:]/g, '')}Z${ending}`

async function readFile(file) {
  if (file.size !== SIZE) throw new Error(`${file.name} has ${file.size} bytes; the image of an EEPROM has ${SIZE}`)
  const bytes = new DataView(await file.arrayBuffer())
  return Array.from({ length: SIZE / 4 }, (_, i) => bytes.getUint32(4 * i, true))
}

// Runs a job to its end, and throws what kept it from being done, with what it has written until then.
async function runJob(request) {
  let job = await post('/v1/jobs', request)
  while (job.ended_ms === null) {
    await new Promise((resume) => setTimeout(resume, LOOK))
    job = await get(`/v1/jobs/${job.job}`)
  }
  if (job.state === 'done') return job.result
  const { written, left } = job.result ?? {}
  const rest = left ? `; ${written.length} words are written, ${left.length} are left` : ''
  const failure = new Error(`${job.error?.message ?? `job ${job.job} was cancelled`}${rest}`)
  failure.hint = left?.length > 0 ? 'restore from the file again to finish it' : job.error?.hint
  throw failure
}

function JobLine({ job, mayWrite }) {
  const [state, run] = useAction()
  const isOpen = job.state === 'queued' || job.state === 'running'
  const percent = job.total > 0 ? Math.floor((100 * job.done) / job.total) : 0
  return (
    <li class="job">
      <span>{job.kind} #{job.job}</span>
      <span>{job.state}</span>
      <progress max={100} value={job.state === 'done' ? 100 : percent} aria-label={`${job.kind}, job ${job.job}`} />
      <span class="muted">{job.total > 0 ? `${job.state === 'done' ? 100 : percent} %, ${number(job.done)} of ${number(job.total)}` : ''}</span>
      {isOpen && mayWrite && <button type="button" onClick={() => run(() => remove(`/v1/jobs/${job.job}`).then(() => ''))}>Cancel</button>}
      {!isOpen && job.ended_ms && <span class="muted">{when(job.ended_ms)}</span>}
      {job.error && <span class="problem">{job.error.message}</span>}
      {state.problem && <span class="problem">{state.problem.message}</span>}
    </li>
  )
}

export function Eeprom({ record, mayWrite, isWriter, jobs, target }) {
  const [state, run] = useAction()
  const picker = useRef()
  const picked = useRef(() => {})
  const card = record.id

  const pickFile = (work) => {
    picked.current = work
    picker.current.value = ''
    picker.current.click()
  }
  const job = (request) => runJob({ card, ...request })
  const dump = async () => {
    const { words } = await job({ kind: 'eeprom-dump' })
    save(words, fileName(card, '.bin'))
    return `${words.length} words read and saved.`
  }
  const compare = async (file) => {
    const { differing } = await job({ kind: 'eeprom-compare', words: await readFile(file) })
    const first = differing.slice(0, 8).map((word) => `0x${hex(word.address, 3)}: card 0x${hex(word.card)}, file 0x${hex(word.file)}`)
    return `${differing.length} of ${SIZE / 4} words differ from ${file.name}. ${first.join('; ')}${differing.length > first.length ? ' \u2026' : ''}`
  }
  const restore = async (file) => {
    const words = await readFile(file)
    const { differing } = await job({ kind: 'eeprom-restore', words, dry_run: true })
    if (differing.length === 0) return `The EEPROM holds ${file.name} already.`
    const details = <p>{`${differing.length} of ${SIZE / 4} words differ from ${file.name}. The words of now are saved as a backup.`}</p>
    if (!(await ask({ title: 'Restore the EEPROM', target, action: `Write ${differing.length} words`, details }))) return ''
    // Before the first write: nothing else keeps what is lost if this page goes away in the middle.
    save((await job({ kind: 'eeprom-dump' })).words, fileName(card, '-backup.bin'))
    const { written, left } = await job({ kind: 'eeprom-restore', words })
    return `Done: ${written.length} words written, ${left.length} left.`
  }
  const own = [...jobs.values()].filter((known) => known.card === card).sort((a, b) => b.job - a.job).slice(0, MOST_JOBS)
  return (
    <section aria-label="EEPROM">
      {mayWrite && (
        <div class="buttons">
          <button type="button" disabled={state.busy} onClick={() => run(dump)}>Dump to a file</button>
          <button type="button" disabled={state.busy} onClick={() => pickFile((file) => run(() => compare(file)))}>Compare with a file</button>
          <button type="button" disabled={state.busy || !isWriter} onClick={() => pickFile((file) => run(() => restore(file)))}>
            Restore from a file
          </button>
          {!isWriter && <span class="muted">Restoring needs eeprom_writer = true in the configuration of fxmd.</span>}
          <input ref={picker} type="file" hidden onChange={(event) => event.target.files[0] && picked.current(event.target.files[0])} />
        </div>
      )}
      <Outcome state={state} />
      {own.length === 0 ? <p class="muted">No job of the last hour.</p> : <ol class="jobs">{own.map((known) => <JobLine key={known.job} job={known} mayWrite={mayWrite} />)}</ol>}
    </section>
  )
}

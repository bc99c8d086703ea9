// Questions before something dangerous. Each shows its target; the most dangerous want it typed.
import { useEffect, useRef, useState } from 'preact/hooks'

let open = null // set by the dialog

// True if the user agrees. `typed`: what must be typed for that.
export const ask = (question) => new Promise((answer) => open({ ...question, answer }))

export function AskDialog() {
  const dialog = useRef()
  const [question, setQuestion] = useState(null)
  const [text, setText] = useState('')
  useEffect(() => {
    open = (asked) => {
      setText('')
      setQuestion(asked)
      dialog.current.showModal()
    }
  }, [])
  const end = (agreed) => {
    dialog.current.close()
    question.answer(agreed)
    setQuestion(null)
  }
  const mayGoOn = question && (question.typed === undefined || text.trim() === question.typed)
  return (
    <dialog ref={dialog} aria-labelledby="question" onCancel={(event) => { event.preventDefault(); end(false) }}>
      {question && (
        <form method="dialog" onSubmit={(event) => { event.preventDefault(); if (mayGoOn) end(true) }}>
          <h2 id="question">{question.title}</h2>
          <p class="target">{question.target}</p>
          {question.details}
          {question.typed !== undefined && (
            <label>
              Type {question.typed} to go on <input value={text} onInput={(event) => setText(event.target.value)} autocomplete="off" autofocus />
            </label>
          )}
          <div class="buttons">
            <button type="button" onClick={() => end(false)} autofocus={question.typed === undefined}>Cancel</button>
            <button type="submit" class="danger" disabled={!mayGoOn}>{question.action}</button>
          </div>
        </form>
      )}
    </dialog>
  )
}

// What the user asks fxmd to do, and what came of it.
import { useState } from 'preact/hooks'

// Runs an action of the user; what fxmd refuses is shown where the user looks.
export function useAction() {
  const [state, setState] = useState({ busy: false, problem: null, done: '' })
  const run = async (work) => {
    setState({ busy: true, problem: null, done: '' })
    try {
      setState({ busy: false, problem: null, done: (await work()) ?? '' })
    } catch (problem) {
      setState({ busy: false, problem, done: '' })
    }
  }
  return [state, run]
}

export const Outcome = ({ state }) => (
  <p class="outcome" role="status">
    {state.problem && <span class="problem">{state.problem.message}{state.problem.hint ? ` \u2014 ${state.problem.hint}` : ''}</span>}
    {state.done}
  </p>
)

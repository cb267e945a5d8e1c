/**
 * `work` that asks how something stands, one run at a time: whoever asks during a run gets the next one, which begins
 * after it. So no older answer comes after a newer one, and each answer is of a time after it was asked for.
 */
export function inTurn(work: () => Promise<void>): () => Promise<void> {
  let running: Promise<void> | undefined;
  let next: Promise<void> | undefined;
  const run = async (): Promise<void> => {
    next = undefined;
    try {
      await work();
    } finally {
      running = next;
    }
  };
  return () => {
    if (running) return (next ??= running.then(run, run));
    return (running = run());
  };
}

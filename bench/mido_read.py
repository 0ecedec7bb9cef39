#!/usr/bin/env python3
"""Times python3-mido reading a MIDI file, for bench_midi to compare against.

Usage: mido_read.py FILE [RUNS]. Prints, on one line, the best wall time and the best CPU time
of RUNS reads in seconds and the number of messages read. Only the read is timed, not the
interpreter's start.
"""
import sys
import time

import mido


def main():
    path = sys.argv[1]
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    best = best_cpu = None
    messages = 0
    for _ in range(runs):
        start, start_cpu = time.perf_counter(), time.thread_time()
        midi = mido.MidiFile(path)
        took, took_cpu = time.perf_counter() - start, time.thread_time() - start_cpu
        best = took if best is None else min(best, took)
        best_cpu = took_cpu if best_cpu is None else min(best_cpu, took_cpu)
        messages = sum(len(track) for track in midi.tracks)
    print(f"{best:.6f} {best_cpu:.6f} {messages}")


if __name__ == "__main__":
    main()

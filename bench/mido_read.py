#!/usr/bin/env python3
"""Times python3-mido reading a MIDI file, for bench_midi to compare against.

Usage: mido_read.py FILE [RUNS]. Prints the best time of RUNS reads in seconds and the number
of messages read, on one line. Only the read is timed, not the interpreter's start.
"""
import sys
import time

import mido


def main():
    path = sys.argv[1]
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    best = None
    messages = 0
    for _ in range(runs):
        start = time.perf_counter()
        midi = mido.MidiFile(path)
        took = time.perf_counter() - start
        best = took if best is None else min(best, took)
        messages = sum(len(track) for track in midi.tracks)
    print(f"{best:.6f} {messages}")


if __name__ == "__main__":
    main()

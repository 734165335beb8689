# A generated capture for scale tests: n layers (awk -v n=...), each with one
# BufferTX rise, on a 60 Hz VSYNC-sf counter over 1 s.
BEGIN {
    print "# tracer: nop"
    for (v = 0; v < 60; v++) printf "  surfaceflinger-600   (  600) [002] ...1  %.6f: tracing_mark_write: C|600|VSYNC-sf|%d\n", 100 + v / 60, v % 2
    for (i = 0; i < n; i++) printf "      binder:600_2-640 (  600) [001] ...1  %.6f: tracing_mark_write: C|600|BufferTX - app%d#%d|1\n", 100.5 + i * 1e-6, i, i
}

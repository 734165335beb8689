# A generated capture for scale tests: n layers (awk -v n=...), each with one
# BufferTX rise, on a 60 Hz VSYNC-sf counter over 1 s, all in time order.
function vsyncs_until(t) {
    for (; v < 60 && 100 + v / 60 <= t; v++) printf "  surfaceflinger-600   (  600) [002] ...1  %.6f: tracing_mark_write: C|600|VSYNC-sf|%d\n", 100 + v / 60, v % 2
}
BEGIN {
    print "# tracer: nop"
    v = 0
    for (i = 0; i < n; i++) {
        vsyncs_until(100.5 + i * 1e-6)
        printf "      binder:600_2-640 (  600) [001] ...1  %.6f: tracing_mark_write: C|600|BufferTX - app%d#%d|1\n", 100.5 + i * 1e-6, i, i
    }
    vsyncs_until(101)
}

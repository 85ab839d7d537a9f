# Sourced by the Wine helper scripts: a quiet, deterministic Wine environment.
# Quiet, except for heap damage: heap checking (wine-prefix.sh heap-check)
# reports it on the err channel of "heap".
export WINEDEBUG="${SWL_WINEDEBUG:--all,err+heap}"
export WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64
# Message boxes return at once without a display; a test that wants a real
# window runs under xvfb-run and sets SWL_KEEP_DISPLAY=1.
if [ -z "${SWL_KEEP_DISPLAY:-}" ]; then unset DISPLAY WAYLAND_DISPLAY; fi

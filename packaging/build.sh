# How the scripts at the root configure and build. Sourced; expects $root, the root of the tree.
# shellcheck shell=bash

: "${root:?}"

# build_preset PRESET [TARGET...]: configures build/PRESET if that was not done yet (the build repeats it by itself when
# a CMake file changed), then builds the targets, or everything.
build_preset() {
    local preset=$1 lock
    shift
    # One at a time: a second build in the same folder waits for the first.
    mkdir -p "$root/build"
    exec {lock}>"$root/build/$preset.lock"
    flock -n "$lock" || { printf 'Waiting for another build of %s\n' "$preset" >&2; flock "$lock"; }
    if [ ! -f "$root/build/$preset/build.ninja" ]; then
        local launcher=()
        # A cached object would bring the notes of the tree that it was first compiled in.
        if [ "$preset" != coverage ] && command -v ccache >/dev/null; then
            launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
        fi
        (cd "$root" && cmake --preset "$preset" "${launcher[@]}")
    fi
    ninja -C "$root/build/$preset" -j "$(nproc)" "$@"
    exec {lock}>&-
}

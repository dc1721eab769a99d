# The Debian packages that the tree needs, once. Sourced by packaging/install-packages.
# shellcheck shell=bash disable=SC2034

# To build everything, tests included.
packages_build=(
    g++ cmake ninja-build pkg-config ccache python3
    libpugixml-dev liburing-dev
    libavformat-dev libavcodec-dev libavutil-dev
    libcurl4-openssl-dev libcli11-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)

# To run the tests: real peers that the server is tried against, what the Debian package is tried with, readers of the manual,
# shells that complete.
packages_test=(ffmpeg curl openssl nginx-light binutils man-db lintian logrotate systemd-container mandoc zsh fish)

# To make a fresh machine that the Debian package is installed on: tests/packaging/fresh_test.sh.
packages_fresh=(mmdebstrap systemd-container)

# To try the console page in: the smallest Chromium, without windows.
packages_browser=(chromium-headless-shell fonts-dejavu-core)

# To look at the sources with: tests/tidy/lint. Another version formats and warns differently.
packages_lint=(clang-format-14 clang-tidy-14)

# To build for Windows and run the tests under Wine.
packages_windows=(
    g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix wine64 clang googletest
    cmake ninja-build ccache python3
)

# To fuzz: clang with libFuzzer and its sanitizers.
packages_fuzz=(clang libclang-rt-14-dev)

# To run the benchmarks. Debian's nginx is the server that we measure ourselves against.
packages_bench=(wrk nginx-light curl)

# To count what a request costs.
packages_guard=(valgrind)

# shellcheck shell=bash disable=SC2034
#
# Sourced by the scripts of this folder: where the tree is, and how missing packages come in.

root=$( cd "$( dirname "${BASH_SOURCE[0]}" )/.." && pwd )
jobs=$( nproc )

die() {
   printf '%s: %s\n' "${0##*/}" "$*" >&2
   exit 1
}

# The Debian packages of one need.
packages_of() {
   case $1 in
   build)
      echo build-essential cmake ninja-build pkg-config ccache \
         libevent-dev libfmt-dev rapidjson-dev \
         libboost-dev libboost-iostreams-dev libboost-stacktrace-dev libboost-system-dev \
         libcli11-dev
      ;;
   test) echo libgtest-dev libgmock-dev python3 ;;
   bench) echo libbenchmark-dev ;;
   peers) echo libuv1-dev libev-dev libglib2.0-dev libsystemd-dev python3 ;;
   demo) echo python3 ;;
   format) echo clang-format-14 ;;
   lint) echo clang-tidy-14 cppcheck ;;
   coverage) echo gcovr ;;
   valgrind) echo valgrind ;;
   fuzz) echo clang-14 libclang-rt-14-dev ;;
   ci) echo clang-14 clang-format-14 libclang-rt-14-dev ;;
   *) die "unknown need '$1' (there are: build test bench peers demo format lint coverage valgrind fuzz ci)" ;;
   esac
}

# Prints those of the named packages that are not installed.
missing_packages() {
   local installed package
   # Asked for a package it has never heard of, dpkg-query fails and still answers for the others.
   installed=$( dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null || true )
   for package; do
      grep -qx "installed $package" <<<"$installed" || echo "$package"
   done
}

# Runs apt-get without asking anything; on failure says in one line what it said.
stale_lists=
apt_get() {
   local log said as_root=()
   if [ "$( id -u )" -ne 0 ]; then
      command -v sudo >/dev/null || die "need root to install: ${missing[*]}"
      as_root=( sudo )
      [ -t 0 ] || as_root=( sudo -n )
   fi
   log=$( mktemp )
   # Another installation may be running, as on a machine just started; it gets two minutes.
   if "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq \
         -o DPkg::Lock::Timeout=120 "$@" >"$log" 2>&1 </dev/null; then
      # Without a network `update` warns and succeeds; the lists of an earlier day may still do.
      if [ "$1" = update ] && grep -qi 'failed to fetch' "$log"; then
         stale_lists=' (some package lists could not be fetched; is there a network?)'
      fi
      rm -f "$log"
      return
   fi
   said=$( grep -m 1 '^E: ' "$log" || grep . "$log" | tail -n 1 || true )
   said=${said#E: }
   rm -f "$log"
   die "cannot install ${missing[*]}: apt-get $1: ${said:-failed}$stale_lists"
}

# Installs what the named needs lack. A complete machine never reaches apt-get.
need() {
   local group packages=() missing=()
   for group; do
      local of_group
      of_group=$( packages_of "$group" ) || exit 1
      # shellcheck disable=SC2206 # package names have no blanks
      packages+=( $of_group )
   done
   if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
      printf '%s: not a Debian machine, going on without a check for: %s\n' \
         "${0##*/}" "${packages[*]}" >&2
      return
   fi
   mapfile -t missing < <( missing_packages "${packages[@]}" )
   [ "${#missing[@]}" -gt 0 ] || return 0
   printf '%s: installing %s\n' "${0##*/}" "${missing[*]}"
   apt_get update
   apt_get install -y --no-install-recommends "${missing[@]}"
   mapfile -t missing < <( missing_packages "${packages[@]}" )
   [ "${#missing[@]}" -eq 0 ] || die "still not installed: ${missing[*]}"
}

# Configures and builds `targets` (all without any) in the folder of a preset.
build_preset() {
   local preset=$1
   shift
   cmake --preset "$preset"
   cmake --build --preset "$preset" --parallel "$jobs" ${1:+--target "$@"}
}

# An optimised build without tests and benchmarks, for the demonstration, for installing and, with
# more options, for the proof.
lean_build=$root/build/lean
lean_options=()
build_lean() {
   cmake -S "$root" -B "$lean_build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DORUQUARN_WERROR=ON -DORUQUARN_TESTS=OFF -DORUQUARN_BENCH=OFF -DORUQUARN_EXAMPLES=ON -DORUQUARN_TOOLS=ON "${lean_options[@]}"
   cmake --build "$lean_build" --parallel "$jobs" ${1:+--target "$@"}
}

# The thread sanitizer of g++ 12 cannot place its memory where newer kernels randomise addresses
# more widely; starts the script anew without that randomisation, where that is allowed.
without_address_randomisation() {
   local setarch=( setarch "$( uname -m )" --addr-no-randomize )
   if [ -z "${ORUQUARN_ADDRESSES_FIXED:-}" ] && "${setarch[@]}" true 2>/dev/null; then
      ORUQUARN_ADDRESSES_FIXED=1 exec "${setarch[@]}" "$@"
   fi
}

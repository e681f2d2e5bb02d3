# Shared by example.sh and test.sh: install what the build needs, find nvcc.
# Sourced, not run.

ZAVIK_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
ZAVIK_JOBS="${ZAVIK_JOBS:-$(nproc 2>/dev/null || echo 2)}"

# Debian packages of the build; apt-get runs only when one is missing.
zavik_install_deps() {
  # Open MPI lets mpirun share a run's micrographs over ranks; without it the
  # build still works, as one process.
  local pkgs="cmake g++ make libfftw3-dev libgtest-dev libpng-dev libopenmpi-dev openmpi-bin" missing="" p
  for p in $pkgs; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
  done
  [ -z "$missing" ] && return 0
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
      sudo="sudo"
    else
      echo "Missing packages:$missing. Install them as root (apt-get install$missing)." >&2
      exit 1
    fi
  fi
  echo "Installing:$missing"
  $sudo apt-get update -q
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q $missing
}

# Path of nvcc, or nothing: PATH first, then the usual toolkit place.
zavik_find_nvcc() {
  if command -v nvcc >/dev/null 2>&1; then
    command -v nvcc
  elif [ -x /usr/local/cuda/bin/nvcc ]; then
    echo /usr/local/cuda/bin/nvcc
  fi
}

# Configures $1 with the CUDA back end when nvcc is found, for the
# architectures in $2; further arguments go to cmake.
zavik_configure() {
  local dir="$1" archs="$2" nvcc
  shift 2
  nvcc="$(zavik_find_nvcc)"
  if [ -n "$nvcc" ]; then
    echo "CUDA back end: $nvcc, architectures $archs"
    cmake -S "$ZAVIK_ROOT" -B "$dir" -DZAVIK_CUDA=ON -DCMAKE_CUDA_COMPILER="$nvcc" \
      -DCMAKE_CUDA_ARCHITECTURES="$archs" "$@"
  else
    echo "No nvcc found: host back end only"
    cmake -S "$ZAVIK_ROOT" -B "$dir" -DZAVIK_CUDA=OFF "$@"
  fi
}

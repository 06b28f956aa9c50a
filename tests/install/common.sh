# Shared by check-install.sh and check-deb.sh, which source it after setting `me`:
# their messages, running a command with its output kept, and their --name=value
# arguments.

fail() {
  printf '%s: FAIL: %s\n' "$me" "$*" >&2
  exit 1
}
step() { printf '%s: %s\n' "$me" "$*"; }

# run LOG CMD...: runs CMD with its output in LOG; shows LOG when CMD fails.
run() {
  local log="$1"
  shift
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    return 1
  fi
}

# take_args NAME... -- ARG...: each ARG --name=value whose name (dashes read as
# underscores) is one of the NAMEs sets the variable of that name; the other ARGs are
# left in the array `rest`.
take_args() {
  local names=" " arg name
  while [ "$1" != -- ]; do
    names+="$1 "
    shift
  done
  shift
  rest=()
  for arg in "$@"; do
    name="${arg%%=*}"
    name="${name#--}"
    name="${name//-/_}"
    if [[ "$arg" == --*=* && "$names" == *" $name "* ]]; then
      printf -v "$name" '%s' "${arg#*=}"
    else
      rest+=("$arg")
    fi
  done
}

# require_args NAME...: fails naming the first NAME whose variable is empty.
require_args() {
  local name
  for name in "$@"; do
    [ -n "${!name}" ] || fail "missing argument --${name//_/-}"
  done
}

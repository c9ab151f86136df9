# Shared by the scripts: all work from the root of the repository, and none reads standard input.
# shellcheck shell=bash
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
exec </dev/null
# Some programs are for administrators: not on the PATH of ordinary Debian users.
PATH=$PATH:/usr/sbin:/sbin

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

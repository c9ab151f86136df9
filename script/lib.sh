# Shared by the scripts: they all work from the root of the repository, and none reads standard input.
# shellcheck shell=bash
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
exec </dev/null
# Programs of the administrator, too: they are not on the PATH of a Debian user.
PATH=$PATH:/usr/sbin:/sbin

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

# Shared by the scripts that run the virtual device.
# shellcheck shell=bash

# Servers and mount tools are for administrators: not on the PATH of ordinary Debian users.
PATH=$PATH:/usr/sbin:/sbin

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

# Retries a command until it succeeds, five times a second for at most SECONDS. Fails if it never does.
poll() { # SECONDS COMMAND...
    local tries=$(($1 * 5))
    shift
    while ! "$@"; do
        ((tries-- > 0)) || return 1
        sleep 0.2
    done
}

# Identifies a process beyond reuse of its id: id and start time, from its line in /proc/PID/stat.
identity() { # STAT
    local -a fields
    read -r -a fields <<<"${1##*) }"
    echo "${1%% *} ${fields[19]}"
}

# The id, as seen from outside, of the first process of the device that runs in DIR; fails if there is none.
running() { # DIR
    local pid stat now
    { read -r pid _ <"$1/init"; } 2>/dev/null || return 1
    { read -r stat <"/proc/$pid/stat"; } 2>/dev/null || return 1
    read -r now <"$1/init"
    [[ $(identity "$stat") == "$now" ]] || return 1
    echo "$pid"
}

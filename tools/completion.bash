# Completion for syscfg, svcctl and netdiag. Names and current values come from the running daemon. No request
# returns the values of a choice or the list of services; those come from the daemon's files.
# shellcheck shell=bash

_syscfg_names() {
    syscfg -q -t 1 list | sed 's/=.*//'
}

# The values that the definitions allow: those of a choice, or of a bool.
_syscfg_choices() { # NAME
    awk -v wanted="$1" '
        function parse(path, depth,    line, words, count, at) {
            while (depth < 8 && (getline line <path) > 0) {
                if (match(line, /^[ \t]*%include[ \t]*/)) {
                    line = substr(line, RLENGTH + 1)
                    sub(/[ \t]+$/, "", line)
                    parse(line, depth + 1)
                }
                gsub(/[^A-Za-z0-9_%-]+/, " ", line)
                count = split(line, words, " ")
                for (at = 2; words[at] ~ /^-/;)
                    at++
                if (words[1] != wanted)
                    continue
                if (tolower(words[at]) == "choice")
                    while (at++ < count)
                        print words[at]
                if (tolower(words[at]) == "bool")
                    print "0\n1"
            }
        }
        BEGIN { parse("/etc/syscfg.def", 0) }' 2>/dev/null
    syscfg -q -t 1 get "$1"
}

_syscfg_services() {
    awk '$1 == "service" { print $2 }' /etc/svc.conf /usr/etc/svc.conf 2>/dev/null
}

# The first operand before the word being completed.
_syscfg_verb() {
    local at
    for ((at = 1; at < COMP_CWORD; at++)); do
        case ${COMP_WORDS[at]} in
        -t | --timeout) ((at++)) ;;
        -*) ;;
        *)
            echo "${COMP_WORDS[at]}"
            return
            ;;
        esac
    done
}

# Candidates that begin with the word being completed, quoted: a value may hold anything, even commands.
_syscfg_reply() { # WORD...
    local word
    COMPREPLY=()
    for word; do
        [[ -z $word || $word != "$cur"* ]] || COMPREPLY+=("$(printf %q "$word")")
    done
}

_syscfg_reply_lines() { # COMMAND...
    local words
    words=$("$@" | sort -u)
    mapfile -t words <<<"$words" # process substitution needs /dev/fd
    _syscfg_reply "${words[@]}"
}

_syscfg_assignments() {
    _syscfg_names | sed 's/$/=/'
}

_syscfg_assignment() {
    if [[ $cur == = || ${COMP_WORDS[COMP_CWORD - 1]} == = ]]; then
        local name=${COMP_WORDS[COMP_CWORD - 1]}
        [[ $name != = ]] || name=${COMP_WORDS[COMP_CWORD - 2]}
        cur=${cur#=}
        _syscfg_reply_lines _syscfg_choices "$name"
    else
        compopt -o nospace 2>/dev/null
        _syscfg_reply_lines _syscfg_assignments
    fi
}

_syscfg() {
    local cur=${COMP_WORDS[COMP_CWORD]} verb
    verb=$(_syscfg_verb)
    case $verb:$cur in
    set:-*) _syscfg_reply --apply --save -q -t ;;
    list:-*) _syscfg_reply --json -q -t ;;
    *:-*) _syscfg_reply -q -t --help --version ;;
    :*) _syscfg_reply get set list wait watch apply save reload reset ;;
    set:* | wait:*) _syscfg_assignment ;;
    get:* | list:* | watch:* | apply:*) _syscfg_reply_lines _syscfg_names ;;
    esac
}

_svcctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} verb
    verb=$(_syscfg_verb)
    case $verb:$cur in
    *:-*) _syscfg_reply -q -t --help --version ;;
    :*) _syscfg_reply start stop restart ;;
    *) _syscfg_reply_lines _syscfg_services ;;
    esac
}

_netdiag() {
    local cur=${COMP_WORDS[COMP_CWORD]} verb
    verb=$(_syscfg_verb)
    case $verb:$cur in
    *:-*) _syscfg_reply --json -q --help --version ;;
    :*) _syscfg_reply interfaces route outside ;;
    outside:*) [[ ${COMP_WORDS[COMP_CWORD - 1]} != outside ]] || _syscfg_reply echo trace ;;
    esac
}

complete -F _syscfg syscfg
complete -F _svcctl svcctl
complete -F _netdiag netdiag

# Bash completion of pmx.
# Subcommands, options and positionals are read from the tool's own help at completion time
# (pmx --help, pmx SUB --help), so a subcommand or option added to the tool completes without a
# change here. Values: choices a help lists ({a,b}) are offered; options of type FILE and
# positionals named file complete file names; a positional named topology completes *.topo.json
# files and the sample topologies of the checkout (examples/chassis); record kinds come from
# pmx decode --list.

# The help of pmx (no argument) or of one subcommand, from the pmx being completed.
_pmx_help()
{
    local tool=$1
    shift
    "$tool" "$@" --help 2>/dev/null
}

# Prints the entries of one section of a help ("Subcommands", "Options", "Positionals"), one a
# line: the names column alone (text before the first run of two spaces, or the whole line when
# the description went to the next line). Continuation lines of descriptions are dropped.
_pmx_help_section()
{
    local section=$1 line in=0
    while IFS= read -r line; do
        if [[ $line == "$section:" ]]; then
            in=1
        elif ((in)); then
            [[ -z $line || $line != "  "* ]] && break
            line=${line#  }
            [[ $line == " "* ]] && continue
            printf '%s\n' "${line%%  *}"
        fi
    done
}

# Sample topologies: examples/chassis of the current directory, else of the checkout the pmx
# being completed was built in (its binary sits a few levels below).
_pmx_topologies()
{
    local tool=$1 dir
    if [[ -d examples/chassis ]]; then
        compgen -G 'examples/chassis/*.topo.json'
        return
    fi
    dir=$(dirname -- "$(command -v -- "$tool" 2>/dev/null || printf '%s' "$tool")")
    local up
    for up in 1 2 3 4; do
        dir=$dir/..
        if [[ -d $dir/examples/chassis ]]; then
            dir=$(cd -- "$dir" && pwd)
            compgen -G "$dir/examples/chassis/*.topo.json"
            return
        fi
    done
}

# Completes the value of one option or positional from its name and type (as the help shows them).
_pmx_complete_value()
{
    local tool=$1 name=$2 type=$3 cur=$4
    if [[ $type == *"{"*"}"* ]]; then
        local choices=${type#*\{}
        choices=${choices%%\}*}
        mapfile -t COMPREPLY < <(compgen -W "${choices//,/ }" -- "$cur")
    elif [[ $name == topology ]]; then
        local t
        mapfile -t COMPREPLY < <({ compgen -f -X '!*.topo.json' -- "$cur"; compgen -d -- "$cur"
                                   _pmx_topologies "$tool" | while IFS= read -r t; do
                                       [[ $t != "$cur"* ]] || printf '%s\n' "$t"; done; } | sort -u)
        compopt -o filenames 2>/dev/null
    elif [[ $type == FILE* || $name == file ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        compopt -o filenames 2>/dev/null
    elif [[ $name == kind || $name == record ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$tool" decode --list 2>/dev/null)" -- "$cur")
    else
        COMPREPLY=()
    fi
}

_pmx()
{
    local cur=${COMP_WORDS[COMP_CWORD]} tool=${COMP_WORDS[0]}
    local sub="" i word
    [[ $tool == "~/"* ]] && tool=$HOME/${tool#"~/"}
    local -a subs
    mapfile -t subs < <(_pmx_help "$tool" | _pmx_help_section Subcommands | awk '{print $1}')

    # The subcommand: the first word after pmx that names one.
    for ((i = 1; i < COMP_CWORD; i++)); do
        for word in "${subs[@]}"; do
            if [[ ${COMP_WORDS[i]} == "$word" ]]; then
                sub=$word
                break 2
            fi
        done
    done
    if [[ -z $sub ]]; then
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$(_pmx_help "$tool" | _pmx_help_section Options |
                                                   awk '{print $1}' | tr ',' ' ')" -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "${subs[*]}" -- "$cur")
        fi
        return 0
    fi

    # The subcommand's options: names, and whether each takes a value (a type follows the names).
    local help entry names type
    local -A takes=() types=()
    local -a options=() positionals=() pos_types=()
    help=$(_pmx_help "$tool" "$sub")
    while IFS= read -r entry; do
        names=${entry%% *}
        names=${names%%\{*}
        type=""
        [[ $entry == *" "* ]] && type=${entry#* }
        for word in ${names//,/ }; do
            options+=("$word")
            [[ -n $type ]] && takes[$word]=1 && types[$word]=$type
        done
    done < <(_pmx_help_section Options <<<"$help")
    while IFS= read -r entry; do
        positionals+=("${entry%% *}")
        pos_types+=("${entry#* }")
    done < <(_pmx_help_section Positionals <<<"$help")

    # The value of an option just before the cursor.
    local prev=${COMP_WORDS[COMP_CWORD - 1]}
    if ((COMP_CWORD - 1 > i)) && [[ -n ${takes[$prev]:-} ]]; then
        _pmx_complete_value "$tool" "$prev" "${types[$prev]}" "$cur"
        return 0
    fi
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${options[*]}" -- "$cur")
        return 0
    fi

    # A positional: count those before the cursor (option values are not); a repeatable last
    # one (its type ends in ...) takes every later word.
    local n=0 j
    for ((j = i + 1; j < COMP_CWORD; j++)); do
        word=${COMP_WORDS[j]}
        if [[ $word == -* ]]; then
            [[ -n ${takes[$word]:-} ]] && ((j++))
        else
            ((n++))
        fi
    done
    if ((${#positionals[@]} > 0)); then
        if ((n >= ${#positionals[@]})); then
            n=$((${#positionals[@]} - 1))
            [[ ${pos_types[n]} == *"..."* ]] || return 0
        fi
        _pmx_complete_value "$tool" "${positionals[n]}" "${pos_types[n]}" "$cur"
    fi
    return 0
}

complete -F _pmx pmx

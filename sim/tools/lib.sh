# SPDX-License-Identifier: Apache-2.0
# Shared by the tool stand-ins; sourced (". /usr/libexec/sim/lib.sh"), never
# run. POSIX shell, so that dash runs it fast: a stand-in is started by
# almost every shell command the plug-in issues.
#
#   sim_log NAME ARG...     append one line to the command log
#   sim_begin NAME ARG...   log, then fail at once if the test said so
#   sim_output FUNCTION...  print NAME.out if there is one, else run FUNCTION
#   sim_finish              exit with NAME.status (0 if there is none)
#   sim_load FILE           read a KEY=VALUE state file into st_KEY variables
#   sim_save FILE KEY...    write those st_KEY variables back, atomically

SIM_LOG=/var/log/sim/commands.log
SIM_TOOLS=/var/sim/tools

SIM_NL='
'
SIM_TAB=$(printf '\t')
SIM_CR=$(printf '\r')

# Sets REPLY to ARG as the command log writes it: as it is when it is made
# only of letters, digits and _@%+=:,./- and is not empty; otherwise in
# double quotes, with backslash, double quote, line feed, tab and carriage
# return written \\ \" \n \t \r. One call is then always one line.
sim_quote()
{
    case $1 in
    '' | *[!A-Za-z0-9_@%+=:,./-]*) ;;
    *)
        REPLY=$1
        return
        ;;
    esac
    _sq_rest=$1
    REPLY=
    while :; do
        case $_sq_rest in
        *[\\\"$SIM_NL$SIM_TAB$SIM_CR]*) ;;
        *) break ;;
        esac
        _sq_head=${_sq_rest%%[\\\"$SIM_NL$SIM_TAB$SIM_CR]*}
        _sq_rest=${_sq_rest#"$_sq_head"}
        _sq_tail=${_sq_rest#?}
        case ${_sq_rest%"$_sq_tail"} in
        \\) _sq_head="$_sq_head\\\\" ;;
        \") _sq_head="$_sq_head\\\"" ;;
        "$SIM_NL") _sq_head="$_sq_head\\n" ;;
        "$SIM_TAB") _sq_head="$_sq_head\\t" ;;
        *) _sq_head="$_sq_head\\r" ;;
        esac
        REPLY=$REPLY$_sq_head
        _sq_rest=$_sq_tail
    done
    REPLY="\"$REPLY$_sq_rest\""
}

# One line: NAME, then each argument after one blank, quoted as above. The
# whole line goes out in one write, so that lines of concurrent tools do not
# interleave.
sim_log()
{
    _sl_line=$1
    shift
    for _sl_arg in "$@"; do
        sim_quote "$_sl_arg"
        _sl_line="$_sl_line $REPLY"
    done
    [ -d "${SIM_LOG%/*}" ] || mkdir -p "${SIM_LOG%/*}"
    printf '%s\n' "$_sl_line" >>"$SIM_LOG"
}

# NAME.status as an exit status; anything but a number from 0 to 255 counts
# as 1, so that a mistyped status still fails the tool.
sim_status()
{
    SIM_STATUS=0
    [ -f "$SIM_TOOLS/$SIM_NAME.status" ] || return 0
    read -r SIM_STATUS <"$SIM_TOOLS/$SIM_NAME.status" || :
    case $SIM_STATUS in
    '' | *[!0-9]* | ????*) SIM_STATUS=1 ;;
    *) [ "$SIM_STATUS" -le 255 ] || SIM_STATUS=1 ;;
    esac
}

# A non-zero NAME.status makes the tool fail before it does anything: it
# prints NAME.out (if any) and exits with that status, its state untouched.
sim_begin()
{
    SIM_NAME=$1
    sim_log "$@"
    sim_status
    if [ "$SIM_STATUS" != 0 ]; then
        [ -f "$SIM_TOOLS/$SIM_NAME.out" ] && cat "$SIM_TOOLS/$SIM_NAME.out"
        exit "$SIM_STATUS"
    fi
}

sim_output()
{
    if [ -f "$SIM_TOOLS/$SIM_NAME.out" ]; then
        cat "$SIM_TOOLS/$SIM_NAME.out"
    else
        "$@"
    fi
}

sim_finish()
{
    exit "${SIM_STATUS:-0}"
}

# KEY=VALUE lines; keys are lower-case words, values the rest of the line
# (taken as they are, never evaluated). Other lines are ignored.
sim_load()
{
    [ -f "$1" ] || return 1
    while IFS= read -r _sd_line || [ -n "$_sd_line" ]; do
        _sd_key=${_sd_line%%=*}
        case $_sd_key in
        '' | *[!a-z0-9_]* | "$_sd_line") continue ;;
        esac
        eval "st_$_sd_key=\${_sd_line#*=}"
    done <"$1"
}

sim_save()
{
    _sd_file=$1
    shift
    {
        for _sd_key in "$@"; do
            eval "printf '%s=%s\n' \"\$_sd_key\" \"\$st_$_sd_key\""
        done
    } >"$_sd_file.tmp.$$" && mv -f "$_sd_file.tmp.$$" "$_sd_file"
}

# Network interfaces: one state file per interface under /var/sim/net, shared
# by ifconfig and ethtool. up and link are yes or no (the port carries a link
# only while it is also up); duplex full or half; autoneg on or off.
SIM_NET=/var/sim/net
SIM_NET_KEYS='up link hwaddr inet bcast mask mtu speed duplex autoneg'

sim_net_load()
{
    case $1 in
    '' | .* | *[!A-Za-z0-9_.-]*) return 1 ;;
    esac
    st_up=no st_link=no st_hwaddr=00:00:00:00:00:00 st_inet='' st_bcast=''
    st_mask='' st_mtu=1500 st_speed=1000 st_duplex=full st_autoneg=on
    sim_load "$SIM_NET/$1"
}

sim_net_save()
{
    sim_save "$SIM_NET/$1" $SIM_NET_KEYS
}

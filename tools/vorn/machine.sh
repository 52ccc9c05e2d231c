# shellcheck shell=bash
# The machine of run, shot and gdb: QEMU's arguments from the VORN_ variables. Sourced by vorn.

is_number() { [[ $1 =~ ^[1-9][0-9]{0,6}$ ]]; }

port_busy() { # port_busy PORT: something listens there on 127.0.0.1 or on every address
    awk -v port="$(printf '%04X' "$1")" '
        $4 == "0A" && split($2, at, ":") == 2 && at[2] == port { found = 1 }
        END { exit !found }' /proc/net/tcp /proc/net/tcp6 2>/dev/null
}

taken=" "
# free_port NAME PORT: sets `port` to PORT, or to the next one that is free, and says so.
free_port() {
    port=$2
    is_number "$port" || wrong "$1: '$port' is not a port"
    while port_busy "$port" || [[ $taken == *" $port "* ]]; do port=$((port + 1)); done
    taken+="$port "
    [ "$port" = "$2" ] || say "port $2 ($1) is busy: using $port"
}

is_running() { grep -q . "/proc/$1/cmdline" 2>/dev/null; }  # not so one that ended unnoticed

socket_live() { grep -q " $PWD/$1\$\| $1\$" /proc/net/unix 2>/dev/null && [ -S "$1" ]; }

# wait_for FILE TEXT SECONDS PID: until FILE holds TEXT; fails when the time is up or PID ended.
wait_for() {
    local until=$((SECONDS + $3))
    while ! grep -qF -- "$2" "$1" 2>/dev/null; do
        is_running "$4" || { cat "$1.qemu" >&2; return 1; }
        [ "$SECONDS" -le "$until" ] || return 1
        sleep 0.1
    done
}

# A machine without terminal, screen, disk and network.
bare_args() {
    args=(-kernel "$VORN_IMAGE" -cpu max -m "$VORN_MEMORY" -display none -nic none -no-reboot)
}

# start_hidden LOG ARGS...: a machine in the background, serial into LOG, its pid in `hidden`.
start_hidden() {
    local log=$1
    shift
    rm -f "$log"
    setsid setpriv --pdeathsig KILL -- "$VORN_QEMU" "$@" -serial "file:$log" \
        </dev/null >"$log.qemu" 2>&1 &
    hidden=$!
    trap stop_hidden EXIT
}

stop_hidden() { kill "$hidden" 2>/dev/null || true; wait "$hidden" 2>/dev/null || true; }

# KVM needs a processor that can run guests, and a guest that answers: some hosts open /dev/kvm and
# then reset the guest when it turns paging on.
kvm_works() {
    grep -qwE 'vmx|svm' /proc/cpuinfo && [ -w /dev/kvm ] || return 1
    local ok=0
    bare_args
    start_hidden build/kvm-probe.log "${args[@]}" -accel kvm
    wait_for build/kvm-probe.log "$PROMPT" 5 "$hidden" || ok=1
    stop_hidden
    return $ok
}

choose_accel() {
    case $VORN_ACCEL in
        tcg) accel=tcg ;;
        kvm | auto)
            accel=kvm
            kvm_works || { accel=tcg; say "KVM does not run our guest here: using TCG"; } ;;
        *) wrong "--accel: '$VORN_ACCEL' is not tcg, kvm or auto" ;;
    esac
}

# parse_run ARGS...: the options of run into the VORN_ variables; what follows -- into `extra`.
parse_run() {
    extra=()
    while [ $# -gt 0 ]; do
        case $1 in
            --memory | --cpus | --accel | --disk)
                [ $# -ge 2 ] || wrong "$1 needs a value"
                case $1 in
                    --memory) VORN_MEMORY=$2 ;;
                    --cpus) VORN_CPUS=$2 ;;
                    --accel) VORN_ACCEL=$2 ;;
                    --disk) case $2 in /*) VORN_DISK=$2 ;; *) VORN_DISK=$caller/$2 ;; esac ;;
                esac
                shift ;;
            --no-disk) VORN_NO_DISK=1 ;;
            --no-net) VORN_NO_NET=1 ;;
            --window) VORN_WINDOW=1 ;;
            --gdb) VORN_GDB=1 ;;
            -h | --help) long_help; exit 0 ;;
            --) shift; extra=("$@"); break ;;
            *)
                wrong "unknown option '$1'; did you mean '$(nearest "$1" "${RUN_OPTIONS[@]}")'?" ;;
        esac
        shift
    done
    is_number "$VORN_MEMORY" || wrong "--memory: '$VORN_MEMORY' is not a number of MB"
    is_number "$VORN_CPUS" || wrong "--cpus: '$VORN_CPUS' is not a number of processors"
    is_number "$VORN_DISK_MB" || wrong "VORN_DISK_MB: '$VORN_DISK_MB' is not a number of MB"
    [[ $VORN_ACCEL =~ ^(tcg|kvm|auto)$ ]] || wrong "--accel: '$VORN_ACCEL' is not tcg, kvm or auto"
}

add_disk() {
    [ -z "$VORN_NO_DISK" ] || return 0
    if [ ! -e "$VORN_DISK" ]; then
        say "making an empty disk of $VORN_DISK_MB MB: $VORN_DISK"
        truncate -s "${VORN_DISK_MB}M" -- "$VORN_DISK" || fail "cannot make $VORN_DISK"
    fi
    # QEMU locks the image it uses.
    ! grep -q ":$(stat -c %i -- "$VORN_DISK") " /proc/locks ||
        fail "another machine uses $VORN_DISK: take --disk FILE or --no-disk"
    args+=(-drive "file=${VORN_DISK//,/,,},format=raw,if=none,id=disk0"
        -device "virtio-blk-pci,drive=disk0,disable-modern=on")
}

add_network() {
    if [ -n "$VORN_NO_NET" ]; then args+=(-nic none); return; fi
    local name guest host variable forwards="" shown=""
    while read -r name guest host; do
        variable=VORN_PORT_${name^^}
        free_port "$name" "${!variable:-$host}"
        forwards+=",hostfwd=tcp:127.0.0.1:$port-:$guest"
        shown+=" $name $port"
    done <<<"$PORTS"
    say "ports on 127.0.0.1:$shown"
    args+=(-netdev "user,id=net0$forwards"
        -device "virtio-net-pci,netdev=net0,disable-modern=on,romfile=")
}

add_gdb() {
    [ -n "$VORN_GDB" ] || return 0
    free_port gdb "$VORN_GDB_PORT"
    echo "$port $$" >build/gdb.port  # QEMU keeps this process id
    args+=(-S -gdb "tcp:127.0.0.1:$port")
    say "waiting for ./vorn gdb"
}

# The arguments of a machine, by the VORN_ variables, into `args`.
machine_args() {
    choose_accel
    args=(-kernel "$VORN_IMAGE" -accel "$accel" -cpu max -m "$VORN_MEMORY" -smp "$VORN_CPUS"
        -no-reboot)
    add_disk
    add_network
    if [ -n "$VORN_WINDOW" ]; then args+=(-display gtk); else args+=(-display none); fi
}

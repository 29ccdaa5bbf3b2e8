# shellcheck shell=bash
# Sourced by ./run, at the top of the tree: a mounted volume and a shell inside its sandbox.

# Ends the log, the volume and what belongs to them, whatever has been started so far.
end_live_volume()
{
    [ -z "${log_reader-}" ] || kill "$log_reader" 2>/dev/null || true
    [ -z "${log_reader-}" ] || wait "$log_reader" 2>/dev/null || true
    fusermount3 -u "$live/mount" 2>/dev/null || fusermount3 -u -z "$live/mount" 2>/dev/null || true
    # The server says in its log when it is done.
    while pgrep -f -- "--mount $live/mount " > /dev/null
    do
        sleep 0.05
    done
}

start_live_volume()
{
    local driver=$1
    mkdir -p "$live/store" "$live/mount"
    # A volume that was left behind by a run that was killed.
    if mountpoint -q "$live/mount" || [ -n "$(pgrep -f -- "--mount $live/mount ")" ]
    then
        end_live_volume
    fi
    [ -f "$live/key" ] || (umask 077 && head -c 33 /dev/urandom > "$live/key")
    cp /bin/bash "$live/launch"
    : > "$live/log"
    "$top/build/release/tarnhost" --daemon --store "$live/store" --mount "$live/mount" --socket "$live/control" \
        --log "$live/log" --driver "$driver" || return 1
    "${agent[@]}" log follow --levels denied --json > "$live/refused" &
    log_reader=$!
    {
        "${agent[@]}" key set --from-file "$live/key" &&
            "${agent[@]}" parent add "C:${live//\//\\}\\launch" &&
            "${agent[@]}" start
    } > /dev/null
}

print_refused()
{
    local count
    count=$(wc -l < "$live/refused")
    echo "refused while you were in: $count"
    # The program, its process and the path of each record.
    sed -E 's/.*"pid":([0-9]+),"process":"([^"]*)".*path = (.*)"\}$/    \2 (\1)  \3/; s/\\\\/\\/g' "$live/refused" |
        uniq -c | tail -n 20
}

# usage: run_live native|IMAGE
run_live()
{
    live=$top/build/live
    agent=("$top/build/release/tarnctl" --socket "$live/control")
    trap end_live_volume EXIT
    start_live_volume "$1" || return 1
    cat <<END
You are inside the sandbox: this shell is a child of build/live/launch, a monitored parent.
  here      echo secret > plan.txt; cat plan.txt; git, tar, python3, sqlite3: whatever you like
  disk      xxd ../../store/Sandbox/plan.txt    (after a sync: what the driver made of it)
  outside   in another terminal: cat build/live/mount/Sandbox/plan.txt    (refused)
  driver    tarnctl status; tarnctl dump; tarnctl encryption off
Leave with "exit": everything is taken down, and what was refused is printed.
END
    cat > "$live/rc" <<END
[ ! -f ~/.bashrc ] || . ~/.bashrc
PS1='(inside) \W \$ '
PATH='$top/build/release':\$PATH
export TARNVEIL_SOCKET='$live/control'
cd '$live/mount/Sandbox'
END
    # With a command behind it the shell is a child, as those of a launcher are, and does not take its parent's place.
    "$live/launch" -c "bash --rcfile '$live/rc' -i; exit \$?" || true
    "${agent[@]}" stop > /dev/null || true
    trap - EXIT
    end_live_volume
    print_refused
    grep -F 'left behind:' "$live/log"
}

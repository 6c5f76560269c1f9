# shellcheck shell=bash
# Print servers that this project did not write, for the demo and the end-to-end tests: p910nd
# takes RAW jobs, lprng's lpd takes LPR jobs for the queue "kq". Both listen on one loopback
# address of their own.
#
#   peers_start FOLDER           starts them, with all their files in FOLDER, and sets
peer_address=                    # where they listen
peer_raw_port=9100
peer_lpd_port=5515
#   peer_received raw|lpr FILE   waits until the job is through, puts what arrived into FILE
#   peers_stop                   ends them; does nothing when they do not run

peers_pid=
peers_folder=

# Both have fixed paths in /etc and /run. They get folders of ours there, in a mount namespace, and
# run as nobody; where that takes a user namespace, as the user who starts them, called nobody.
peers_start() {
    local folder=$1 drop="exec" own_user=()
    peers_stop
    rm -rf "$folder"
    mkdir -p "$folder"/{etc/lprng,run/lock/p910nd,data/kq}
    folder=$(cd "$folder" && pwd)
    # Process numbers have 22 bits at most: no two scripts have the same address.
    peer_address=127.$((100 + $$ / 65536)).$(($$ / 256 % 256)).$(($$ % 256))
    peers_folder=$folder
    touch "$folder/data/raw" "$folder/data/lpr"

    cp /etc/{passwd,group,hosts,nsswitch.conf,ld.so.cache} "$folder/etc/"
    echo "kq:sd=/mnt/kq:lp=/mnt/lpr:rw@:mx=0:sh" >"$folder/etc/printcap"
    echo "DEFAULT ACCEPT" >"$folder/etc/lprng/lpd.perms"
    if [ "$(id -u)" -eq 0 ] && unshare --mount true 2>/dev/null; then
        drop="exec setpriv --reuid=nobody --regid=nogroup --clear-groups"
        chown -R nobody:nogroup "$folder/run" "$folder/data"
    else
        own_user=(--user --map-root-user)
        unshare "${own_user[@]}" --mount true 2>/dev/null || {
            echo "p910nd and lpd need a mount namespace: allow one, with root's rights or a user" \
                "namespace (a container usually needs --cap-add SYS_ADMIN for that)" >&2
            return 1
        }
        drop="exec unshare --user --map-user=$(id -u nobody) --map-group=$(id -g nobody)"
    fi
    cat >"$folder/etc/lprng/lpd.conf" <<EOF
lpd_listen_port=$peer_address%$peer_lpd_port
unix_socket_path=off
done_jobs=0
lockfile=/mnt/lpd.lock
user=nobody
group=nogroup
server_user=nobody
EOF
    # In a process namespace of their own, so that none of their children outlives them.
    PATH=$PATH:/usr/sbin unshare "${own_user[@]}" --mount --pid --fork --kill-child \
        bash -c "
            mount --bind '$folder/data' /mnt
            mount --bind '$folder/etc' /etc
            mount --bind '$folder/run' /run
            ($drop p910nd -d -f /mnt/raw -i $peer_address 0) &
            ($drop lpd -F) &
            wait -n" </dev/null >"$folder/log" 2>&1 &
    peers_pid=$!
    local tries=0 port
    for port in "$peer_raw_port" "$peer_lpd_port"; do
        until [ -n "$(ss -Hltn "src $peer_address:$port")" ]; do
            if ! kill -0 "$peers_pid" 2>/dev/null || [ $((tries += 1)) -gt 200 ]; then
                cat "$folder/log" >&2
                peers_stop
                return 1
            fi
            sleep 0.05
        done
    done
}

# lpd has acknowledged a job before it prints it; when it has, the job leaves the queue's folder.
peer_received() {
    local tries=0
    while [ "$1" = lpr ] && compgen -G "$peers_folder/data/kq/[cdh]f*" >/dev/null; do
        [ $((tries += 1)) -le 400 ] || return 1
        sleep 0.05
    done
    cp "$peers_folder/data/$1" "$2"
    : >"$peers_folder/data/$1"
}

peers_stop() {
    [ -n "$peers_pid" ] || return 0
    # unshare holds back the gentler signals while it waits.
    kill -KILL "$peers_pid" 2>/dev/null || true
    wait "$peers_pid" 2>/dev/null || true
    peers_pid=
}

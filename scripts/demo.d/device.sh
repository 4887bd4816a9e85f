# A daemon at the front of a device: it sets up the network, and misses what this machine has not.
# All in a network of its own, with copies of what DHCP clients write.

# Runs as the first process of namespaces of its own; what is left in there ends with it.
device_network() {
    set -euo pipefail
    local peer
    mount -t tmpfs tmpfs /run
    mkdir /run/dnsmasq /run/sudo /run/etc /run/netns
    cp --archive /etc/. /run/etc
    mount --bind /run/etc /etc
    mount -t tmpfs tmpfs /var/lib/dhcp
    printf 'nameserver 10.77.0.53\n' > /run/dnsmasq/resolv.conf
    hostname localhost # sudo looks it up
    ip netns add peer
    ip link add dev0 type veth peer name srv0 netns peer
    ip -n peer addr add 10.77.0.1/24 dev srv0
    ip -n peer link set srv0 up
    ip netns exec peer dnsmasq --keep-in-foreground --conf-file=/dev/null --user=root --pid-file \
        --port=0 --no-ping --interface=srv0 --bind-interfaces --dhcp-authoritative \
        --dhcp-leasefile=/run/leases --dhcp-range=10.77.0.100,10.77.0.110,255.255.255.0,2m \
        --log-facility=- 2> "$work/dhcp.log" &
    for ((i = 0; i < 100; ++i)); do
        ! grep --quiet 'bound exclusively' "$work/dhcp.log" || break
        sleep 0.05
    done
    "$bin/netd" --config "$work/netd.conf" &
    peer=$!
    read -r _ < "$work/run/stop"
    kill -TERM "$peer"
    wait "$peer"
}

# Asks the daemon for its state until it has a part, and prints it.
await_state() {
    for ((i = 0; i < 400; ++i)); do
        "$tools/quorctl" --unix "$work/run/netd" send 15 > "$work/answer" 2>&1 || true
        ! grep --quiet --fixed-strings "$1" "$work/answer" || break
        sleep 0.05
    done
    say "    \$ quorctl --unix netd send 15"
    show_file "$work/answer"
    expect_said "$1"
}

show_device() {
    local status=0 network
    begin_step 'A device without button and LED'
    if [[ $real_root != yes ]]; then
        say '(Left out: setting up a network takes root.)'
        return
    fi
    printf 'path=%s\nport=0\nbutton_line=4\nled=status\ninterface=dev0\naddress=dhcp\n' \
        "$work/run/netd" > "$work/netd.conf"
    show_file "$work/netd.conf"
    say 'A network of its own, with a DHCP server at the other end of dev0.'
    say "    \$ netd --config netd.conf &"
    mkfifo "$work/run/stop"
    export work bin
    unshare --net --uts --mount --pid --fork --kill-child --mount-proc --propagation private \
        bash -c "$(declare -f device_network); device_network" &
    network=$!
    expect_log 'netd\[.*this machine has no LED status: nothing is shown'
    expect_log 'netd\[.*this machine has no GPIO line 4: there is no reset button'
    say 'It goes on with what there is:'
    expect_log 'netd\[.* ready, pid'

    begin_step 'It sets up its interface'
    expect_log 'netd\[.*interface dev0: up, address "10\.77\.0\.'
    say 'The state that it serves to whoever asks:'
    await_state '"state":"up"'
    expect_said '"dns1":"10.77.0.53"'
    say "    \$ kill -TERM ..."
    echo > "$work/run/stop"
    wait "$network" || status=$?
    expect_log 'netd\[.* stopping'
    expect_equal "$status" 0 'its exit status'
}

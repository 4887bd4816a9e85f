# The main job: a daemon and its peer, a person at a terminal, and an end in order.
show_frame() {
    begin_step 'A daemon comes up'
    say 'Its configuration: a port for its peer (0: one that the kernel chooses), a path at which people' \
        'reach it, a child process to keep, and how often it looks after its connection.'
    printf 'port=0\ntools_path=%s\nchild=sleep 600\nmonitoring_period_s=1\n' \
        "$work/run/tools" > "$work/daemon.conf"
    show_file "$work/daemon.conf"
    say "    \$ hello_daemon --config daemon.conf &"
    "$bin/hello_daemon" --config "$work/daemon.conf" &
    daemon=$!
    expect_log "hello_daemon\[$daemon\]: .* child [0-9]+ started: sleep 600"
    child=${line##* child }
    child=${child%% *}
    expect_log "hello_daemon\[$daemon\]: .* ready, pid $daemon, port [0-9]+"
    port=${line##* }
    expect_log 'ready for tools'

    begin_step 'A second daemon talks to it as a client'
    say 'What follows ">" is what the client is told to ask; the next line is what it was answered.'
    start_client "$port"
    expect_log 'the peer has connected'
    ask 'ping' '^ping: answered within [0-9]+ us$'
    ask 'version' '^version: 100 of hello_daemon$'
    ask 'pid' "^pid: $daemon\$"
    ask 'name' '^name: hello_daemon$'
    say 'A command of its own, which the library does not know:'
    ask 'greet Ada' '^greet: hello, Ada$'
    say 'An exchange with a payload:'
    ask 'echo 2048' '^echo: 2048 bytes came back unchanged$'

    begin_step 'A person at a terminal talks to it, while the client is connected'
    person ping -c 2 -i 0.1
    expect_said '^2 sent, 2 received'
    person version
    expect_said 'hello_daemon 1\.00'
    person pid
    expect_said "^$daemon\$"
    say 'The threads and their log levels, read from the page that the daemon makes for a browser:'
    person log
    expect_said 'hello_server +5 notice'
    say 'A command that only this daemon knows, by its number:'
    person send 1000 --data Joe
    expect_said '^hello, Joe$'

    begin_step 'The log level of one thread is raised while it runs'
    say 'The endpoint logs every greeting at debug level (7). Its level is 5, so this one is not seen:'
    ask 'greet Bob' '^greet: hello, Bob$'
    person log set 'hello_server=debug'
    expect_said '^hello_server: 5 notice -> 7 debug$'
    ask 'greet Eve' '^greet: hello, Eve$'
    expect_log 'hello_server.*asked to greet, answered "hello, Eve"'
    [[ -z $(log_line 'hello, Bob') ]] || fail 'the greeting before was logged'
    say 'The daemon was told that its configuration changed, and has saved it:'
    expect_log 'configuration saved'
    expect_setting "$work/daemon.conf" 'log_level_hello_server=7'

    begin_step 'Its child process is killed'
    say "    \$ kill -KILL $child"
    kill -KILL "$child"
    expect_log "child $child was ended by signal 9"
    [[ ! -e /proc/$child ]] || fail "process $child was not reaped"
    say "There is no process $child any more, not even a zombie. The daemon serves on:"
    ask 'ping' '^ping: answered'

    begin_step 'It is asked to end, and saves its configuration'
    say "    \$ kill -TERM $daemon"
    kill -TERM "$daemon"
    status=0
    wait "$daemon" || status=$?
    expect_log "hello_daemon\[$daemon\]: .* stopping"
    expect_equal "$status" 0 'its exit status'
    say 'Its exit status is 0. The configuration now has every key that can be set:'
    show_file "$work/daemon.conf"
    expect_setting "$work/daemon.conf" 'port=0'
    expect_setting "$work/daemon.conf" 'log_level_hello_server=7'
    stop_client

    begin_step 'It runs in the background, as an unprivileged user'
    local identity=()
    if [[ $real_root == yes ]]; then
        identity=(--user nobody --group nogroup)
        chown nobody:nogroup "$work/daemon.conf" "$work/run"
    else
        say '(Not as another user: that takes root. In the namespace of the demo you are user 0.)'
    fi
    say "    \$ hello_daemon --config daemon.conf --daemon ${identity[*]}"
    "$bin/hello_daemon" --config "$work/daemon.conf" --daemon "${identity[@]}" ||
        fail "it ended with status $?"
    say 'The command has come back at once; the daemon goes on without it:'
    expect_log 'ready, pid [0-9]+, port [0-9]+'
    port=${line##* }
    daemon=${line##*ready, pid }
    daemon=${daemon%%,*}
    expect_log 'ready for tools'
    say "    \$ grep -E '^(Uid|Gid|CapEff)' /proc/$daemon/status; readlink /proc/$daemon/cwd"
    grep -E '^(Uid|Gid|CapEff)' "/proc/$daemon/status" > "$work/facts"
    readlink "/proc/$daemon/cwd" >> "$work/facts"
    show_file "$work/facts"
    expect_equal "$(tail -n 1 "$work/facts")" / 'its working directory'
    if [[ $real_root == yes ]]; then
        say 'It is nobody, and of all that root may do it may only send signals and set up the network.'
        grep --quiet "^Uid:.$(id -u nobody).$(id -u nobody)" "$work/facts" || fail 'it is not nobody'
        grep --quiet '^CapEff:.0000000000001020$' "$work/facts" || fail 'its rights are others'
    fi
    say 'It has found the level that was set before:'
    start_client "$port"
    ask 'pid' "^pid: $daemon\$"
    person log list
    expect_said 'hello_server +7 debug'
    stop_client
    say "    \$ kill -TERM $daemon"
    kill -TERM "$daemon"
    expect_log "hello_daemon\[$daemon\]: .* stopping"
    await_end "$daemon"
}

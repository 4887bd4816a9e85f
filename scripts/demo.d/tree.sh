# The data tree: read and changed by a person, kept through a kill, and a record from daemon to daemon.
start_tree_daemon() {
    say "    \$ hello_daemon --config tree.conf &"
    "$bin/hello_daemon" --config "$work/tree.conf" &
    daemon=$!
    expect_log "hello_daemon\[$daemon\]: .* ready, pid $daemon, port [0-9]+"
    port=${line##* }
    expect_log "hello_daemon\[$daemon\]: .* ready for tools"
}

# As person, for what the daemon does not take.
person_refused() {
    local status=0
    say "    \$ quorctl --unix tools $*"
    "$tools/quorctl" --unix "$work/run/tools" "$@" > "$work/answer" 2>&1 || status=$?
    show_file "$work/answer"
    expect_equal "$status" 1 'its exit status'
}

show_tree() {
    begin_step 'A daemon has a data tree, which a person can read'
    say 'Its configuration names a directory for the tree:'
    printf 'port=0\ntools_path=%s\ntree_directory=%s\n' \
        "$work/run/tools" "$work/tree" > "$work/tree.conf"
    show_file "$work/tree.conf"
    start_tree_daemon
    person config get
    expect_said '"word" : "hello"'
    expect_said '"rxLevel" : -999'

    begin_step 'A person changes a value'
    person config set /db/greeting/word '"salut"'
    expect_said '"word" : "salut"'
    say 'The daemon uses it, and has saved the tree, a file for each record:'
    person send 1000 --data Ada
    expect_said '^salut, Ada$'
    expect_log 'tree: saved as state-1'
    say "    \$ ls -F tree tree/current/; cat tree/current/greeting"
    (cd "$work" && ls -F tree tree/current/ && cat tree/current/greeting) > "$work/facts"
    show_file "$work/facts"
    grep --quiet '"word" : "salut"' "$work/facts" || fail 'the file does not have it'

    begin_step 'What may not be changed is refused, with the cause'
    say 'How many were greeted is for the daemon to say, the longest name has 64 bytes, and names that' \
        'the tree does not have are not passed over:'
    person_refused config set /db/greeting/answered 1000
    expect_said '^quorctl: /db/greeting/answered: answered : Valeur'
    person_refused config set /db/greeting/nameBytesMax 65
    expect_said '^quorctl: /db/greeting/nameBytesMax: nameBytesMax : Valeur'
    person_refused config set /db/greeting '{"nameBytesMax":16,"wrod":"hi"}'
    expect_said 'there is no attribute /db/greeting/wrod'
    say 'Nothing of a document is taken when a part of it is refused:'
    person config get /db/greeting/nameBytesMax
    expect_said '"nameBytesMax" : 64'

    begin_step 'It is killed, and has its tree when it comes back'
    say "    \$ kill -KILL $daemon"
    kill -KILL "$daemon"
    wait "$daemon" 2> "$work/facts" || true # the shell says that it was killed
    start_tree_daemon
    expect_log 'tree: 3 records were read from state-1, 0 were not'
    person config get /db/greeting/word
    expect_said '"word" : "salut"'

    begin_step 'One daemon sends another a record'
    say 'The client reports the cell that serves it: a record without names, as both sides know it. The' \
        'daemon reads it apart, checks its values, and then takes it over.'
    start_client "$port"
    ask 'cell LTE -95' '^cell: LTE, -95 dBm was taken$'
    expect_log 'the peer is served by a cell: LTE, -95 dBm'
    person config get /db/cell
    expect_said '"techno" : "LTE"'
    expect_said '"rxLevel" : -95'
    say 'A level above 0 dBm is none:'
    ask 'cell LTE 5' '^cell: FAILED, LTE, 5 dBm was refused$'
    expect_log 'a cell of the peer was refused: a value is out of its range'
    exec {to_client}>&- {from_client}<&-
    ! wait "$client" || fail 'the client does not tell that it was refused'
    say "    \$ kill -TERM $daemon"
    kill -TERM "$daemon"
    wait "$daemon" || fail "the daemon ended with status $?"
    expect_log 'tree: saved as state-2'
}

# The modem daemon, a daemon that asks it, and a modem that is unplugged, silent, or wants a PIN.

# Runs quorctl as a person at a terminal would, who wants something of the modem.
modem_person() {
    say "    \$ quorctl --unix modem modem $*"
    "$tools/quorctl" --unix "$work/run/modem" --timeout 20000 modem "$@" > "$work/answer" 2>&1 ||
        fail "quorctl ended with status $?: $(cat "$work/answer")"
    tail -n 20 "$work/answer" | sed 's/^/    /' # a record is long
}

# The same, and the daemon refuses.
modem_person_refused() {
    say "    \$ quorctl --unix modem modem $*"
    if "$tools/quorctl" --unix "$work/run/modem" --timeout 20000 modem "$@" > "$work/answer" 2>&1; then
        fail 'quorctl was not refused'
    fi
    show_file "$work/answer"
    expect_said "$refusal"
}

# Starts a modem that goes by a script, given on the standard input.
start_modem() {
    cat > "$work/modem.script"
    say "    \$ modem_simulator --link ttyModem --script modem.script &"
    "$bin/modem_simulator" --link "$work/ttyModem" --script "$work/modem.script" > "$work/modem.out" &
    modem=$!
    for ((i = 0; i < 200; ++i)); do
        [[ ! -s $work/modem.out ]] || return 0
        sleep 0.05
    done
    fail 'the simulated modem does not start'
}

# Starts modemd with the settings that are given, besides the usual ones.
start_modemd() {
    printf '%s\n' "device=$work/ttyModem" port=0 "path=$work/run/modem" settle_s=0 reopen_s=1 \
        registration_period_s=1 signal_period_s=1 "tree_directory=$work/modem.tree" "$@" \
        > "$work/modemd.conf"
    say "    \$ modemd --config modemd.conf &"
    "$bin/modemd" --config "$work/modemd.conf" &
    modemd=$!
    expect_log "modemd\[$modemd\]: .* ready, pid $modemd, port [0-9]+"
    modemd_port=${line#*, port }
    modemd_port=${modemd_port%%,*}
}

end_modem() {
    local status=0
    kill -TERM "$modemd"
    wait "$modemd" || status=$?
    expect_equal "$status" 0 'the exit status of modemd'
    kill -TERM "$modem"
    wait "$modem" || true
}

show_modem() {
    local modem modemd modemd_port watch status refusal

    begin_step 'A modem daemon takes its modem into use'
    say 'The modem is simulated, on a pseudo-terminal. Its script: what happens on a signal.'
    start_modem << 'END'
signal USR1
    @hangup 3000
signal USR2
    +CMTI: "SM",3
END
    start_modemd allow_at=1
    show_file "$work/modemd.conf"
    expect_log "modemd\[$modemd\]: .* the port is open"
    expect_log "modemd\[$modemd\]: .* the modem is ready"
    expect_log "modemd\[$modemd\]: .* registration: home"

    begin_step 'A second daemon asks it for the cell, a person for other things'
    printf 'port=%s\nperiod_s=1\n' "$modemd_port" > "$work/watch.conf"
    say "    \$ modem_watch --config watch.conf &"
    "$bin/modem_watch" --config "$work/watch.conf" &
    watch=$!
    expect_log "modem_watch\[$watch\]: .* cell 43981 of area 195, LTE, -79 dBm"
    expect_log "modem_watch\[$watch\]: .* registration: home, error 0"
    modem_person imei
    expect_said '^356938035643809$'
    modem_person cell
    expect_said '^rxLevel +-79$'
    modem_person sms +33123456789 'The pump is off'
    expect_said '^1$'
    say 'An AT command beside the running daemon, which its configuration allows:'
    modem_person at AT+COPS?
    expect_said '20801'

    begin_step 'A message comes in, of somebody who may not send any, and then may'
    kill -USR2 "$modem"
    expect_log 'SMS 3 of \+33123456789 is not allowed'
    modem_person whitelist add +33123456789
    expect_said '^\+33123456789$'
    kill -USR2 "$modem"
    expect_log 'SMS 3 of \+33123456789: Hello'

    begin_step 'The modem is unplugged: its device is gone, and comes back'
    kill -USR1 "$modem"
    expect_log "modemd\[$modemd\]: .* the port is closed"
    expect_log "modemd\[$modemd\]: .* the modem is away"
    expect_log "modem_watch\[$watch\]: .* news: the modem is away"
    [[ ! -e $work/ttyModem ]] || fail 'the device is still there'
    refusal='there is no modem \(error 2\)'
    modem_person_refused imei
    say 'And plugged in again:'
    expect_log "modemd\[$modemd\]: .* the modem is ready"
    modem_person imei
    expect_said '^356938035643809$'
    kill -TERM "$watch"
    wait "$watch" || fail "modem_watch ended with status $?"
    say 'What was said to the modem and by it, the last of it:'
    modem_person record
    expect_said '> ATE0$'
    end_modem
    say 'The white list outlives the daemon:'
    show_file "$work/modem.tree/current/callback"
    grep --quiet --fixed-strings '+33123456789' "$work/modem.tree/current/callback" ||
        fail 'the number was not saved'

    begin_step 'A wrong PIN is sent once, and never again by itself: a SIM locks after three'
    start_modem << 'END'
on AT+CPIN?
    +CPIN: SIM PIN
    OK
on AT+CPIN=*
    +CME ERROR: 16
END
    start_modemd pin=1111
    expect_log 'the SIM has refused the PIN: incorrect password'
    expect_log 'the configured one was tried in vain, it is not sent again'
    say 'Nor does a daemon that was killed and starts anew:'
    say "    \$ kill -KILL $modemd"
    kill -KILL "$modemd"
    wait "$modemd" 2> "$work/ignored" || true
    say "    \$ modemd --config modemd.conf &"
    mark=$(wc -l < "$work/log")
    "$bin/modemd" --config "$work/modemd.conf" &
    modemd=$!
    expect_log "modemd\[$modemd\]: .* ready, pid $modemd"
    expect_log 'the configured one was tried in vain, it is not sent again'
    modem_person record
    if grep --quiet 'CPIN=' "$work/answer"; then
        fail 'it was sent again'
    fi
    end_modem

    begin_step 'A modem that says nothing'
    start_modem << 'END'
on *
END
    start_modemd command_timeout_ms=1000
    expect_log "modemd\[$modemd\]: .* the modem does not answer"
    refusal='the modem does not answer \(error 3\)'
    modem_person_refused imei
    end_modem
}

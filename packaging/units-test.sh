#!/usr/bin/env bash
# Uses the units under the managers of a system that is booted, as root: packaging/units-test.sh
# The users "tester", "alice" and "bob" have managers of their own; alice is in the group "pilot".
set -Eeuo pipefail
trap 'echo "packaging/units-test.sh: line $LINENO failed" >&2' ERR
. "$(dirname "$0")/expect.sh"

runtime=/run/user/$(id -u tester)
as() { # USER COMMAND...
    local who=$1
    shift
    runuser -u "$who" -- env XDG_RUNTIME_DIR="/run/user/$(id -u "$who")" HOME="/home/$who" "$@"
}
as_tester() { as tester "$@"; }
as_root() { env XDG_RUNTIME_DIR=/run HOME=/root "$@"; }

systemctl_of() { # tester|root ARGUMENT...
    local who=$1
    shift
    case $who in
        tester) as_tester systemctl --user "$@" ;;
        root) systemctl "$@" ;;
    esac
}
process_of() { systemctl_of "$1" show -P MainPID sdconfigd.service; }
is_new_process() { # tester|root OLD
    local now
    now=$(process_of "$1")
    [ "$now" != 0 ] && [ "$now" != "$2" ]
}
is_failed() { systemctl_of "$1" is-failed -q sdconfigd.socket; }

try() { # tester|root, FOLDER of its data, FOLDER for changes of its units
    local who=$1 data=$2 drop_in=$3/sdconfigd.service.d process
    local sdconfig=("as_$who" sdconfig)
    systemctl_of "$who" start sdconfigd.socket
    expect 0 process_of "$who"  # nobody called yet
    "${sdconfig[@]}" secure set mail.password "of $who"
    "${sdconfig[@]}" doctor

    process=$(process_of "$who")
    kill -KILL "$process"
    wait_for is_new_process "$who" "$process"
    expect "of $who" "${sdconfig[@]}" secure get mail.password

    mkdir -p "$drop_in"
    printf '[Service]\nWatchdogSec=2s\n' >"$drop_in/watchdog.conf"
    systemctl_of "$who" daemon-reload
    systemctl_of "$who" restart sdconfigd.service
    process=$(process_of "$who")
    sleep 5
    expect "$process" process_of "$who"  # it gives signs of life
    kill -STOP "$process"
    wait_for is_new_process "$who" "$process"
    expect "of $who" "${sdconfig[@]}" secure get mail.password

    systemctl_of "$who" stop sdconfigd.socket sdconfigd.service
    mv "$data/sdsecurity.keys" "$data/away"
    systemctl_of "$who" start sdconfigd.socket
    ! "${sdconfig[@]}" secure get mail.password || return 1
    wait_for is_failed "$who"
    "${sdconfig[@]}" doctor >/tmp/told && return 1
    grep 'problem: units:.*; next: first mend the data folder' /tmp/told
    grep 'problem: data folder:.*key ring' /tmp/told
    mv "$data/away" "$data/sdsecurity.keys"
    "${sdconfig[@]}" doctor >/tmp/told && return 1
    grep 'problem: units:.*reset-failed sdconfigd.service; .*start sdconfigd.socket' /tmp/told
    systemctl_of "$who" reset-failed sdconfigd.service
    systemctl_of "$who" start sdconfigd.socket
    expect "of $who" "${sdconfig[@]}" secure get mail.password
}

# Asks the seal as somebody, and prints what it answers.
# shellcheck disable=SC2016
seal() { # tester|root REQUEST
    "as_$1" perl -MIO::Socket::UNIX -e '
        my $seal = IO::Socket::UNIX->new("/run/sdconfig/seal") or die "no seal: $!";
        $seal->syswrite("$ARGV[0]\n");
        print <$seal>' -- "$2"
}

opens() { [ "$(seal "$1" "open $2")" = "key $3" ]; } # tester|root SEALED KEY

try_seal() {
    local key sealed
    key=$(printf '%064d' 7)
    sealed=$(seal tester "seal $key")
    expect "key $key" seal tester "open ${sealed#sealed }"
    expect "refused it was sealed for another user" seal root "open ${sealed#sealed }"
    mv /var/lib/systemd/credential.secret /root/away
    systemctl restart sdconfig-seal.socket  # makes another one, as another machine has
    seal tester "open ${sealed#sealed }" | grep '^refused it was sealed by another machine'
    mv /root/away /var/lib/systemd/credential.secret
    expect "key $key" seal tester "open ${sealed#sealed }"
    # A user who floods it gets answers later, and neither shuts it nor takes the turns of others.
    as_tester perl -MIO::Socket::UNIX -e 'push @all, IO::Socket::UNIX->new("/run/sdconfig/seal") for 1 .. 300'
    wait_for opens tester "${sealed#sealed }" "$key"
    expect "" systemctl list-units --failed --plain --no-legend 'sdconfig-seal*'
    journalctl -q -t sdconfig-seal | grep -c "open: user $(id -u tester), process"
    ! journalctl -q -t sdconfig-seal | grep -F "$key" || return 1
}

channel_is() { [ "$(as "$1" sdconfig secure get velmar.channel)" = "$2" ]; } # USER VALUE

# Calls of a user over the wire: METHOD [SIGNATURE ARGUMENT...], to the service of the user OWNER. Prints the answer.
call_of() { # USER OWNER METHOD...
    local who=$1 socket
    socket=/run/user/$(id -u "$2")/sdbus/sdconfig
    shift 2
    as "$who" busctl --address="unix:path=$socket" call sd.config / sdbus.Service "$@"
}

# Whatever a user calls, on a key that a policy of the machine gives the value "stable" at 10.
try_calls() { # USER
    local who=$1 call
    local key=velmar.channel
    for call in "SET_POLICY ssy $key mine 127" "SET_POLICY ssy VELMAR.Channel mine 127" "DELETE_POLICY s $key" \
        "SET_POLICYLIST yssy 1 $key mine 127" "SET_POLICYLIST yssyssy 2 $key mine 127 $key mine 9" \
        "!DM_CLEAR_ALL_KEYS" "!SET_SECURE ss $key mine" "!DEL_SECURE s $key" "POLICIES_READ"; do
        local wanted=false
        [ "${call#!}" = "$call" ] || wanted=true  # it does what it can do: to what is stored
        # shellcheck disable=SC2086
        expect "b $wanted" call_of "$who" "$who" ${call#!}
        expect 's "stable"' call_of "$who" "$who" GET_SECURE s $key
        expect 'sy "stable" 10' call_of "$who" "$who" GET_POLICY s $key
        expect "b true" call_of "$who" "$who" ISSTRONG_CONTROL s $key
    done
}

# What the guide for administrators shows, with three users: policies hold whatever each of them tries.
try_policies() {
    local user
    echo '{"velmar.channel": {"value": "stable", "priority": 10}}' >/root/50-fleet.json
    echo '{"velmar.channel": {"value": "beta", "priority": 10, "users": ["@pilot"]}}' >/root/60-pilot.json
    expect "files 2, policies 2, faults 0" sdconfig policy lint /root/50-fleet.json /root/60-pilot.json
    install -m 755 "$(dirname "$0")/get_round_policy" /opt  # users can't look into /root
    for user in tester alice bob; do
        wait_for test -S "/run/user/$(id -u "$user")/bus"
        as "$user" systemctl --user start sdconfigd.socket
        as "$user" sdconfig secure set velmar.channel "of $user"
    done
    as bob sdconfig policy install /root/50-fleet.json 2>/dev/null && return 1
    sdconfig policy install /root/50-fleet.json >/tmp/told
    grep '^root: ~ velmar.channel: (no value) -> "stable"' /tmp/told
    for user in tester alice bob; do
        grep "^$user: ~ velmar.channel: (a value that is not shown) -> \"stable\"" /tmp/told
        wait_for channel_is "$user" stable
        as "$user" sdconfig policy set velmar.channel mine 127 2>/tmp/told.err && return 1
        grep 'stands in /etc/sdconfig/policies.d/50-fleet.json, line 1' /tmp/told.err
        as "$user" sdconfig policy delete velmar.channel 2>/dev/null && return 1
        as "$user" sdconfig policy clear --yes
        as "$user" sdconfig secure delete velmar.channel
        as "$user" sdconfig secure set velmar.channel "of $user"
        echo '{"velmar.channel": {"value": "mine", "priority": 127}}' | as "$user" sdconfig policy apply - >/dev/null &&
            return 1
        as "$user" sh -c 'rm -f /etc/sdconfig/policies.d/50-fleet.json 2>/dev/null' && return 1
        channel_is "$user" stable
        try_calls "$user"
        as "$user" /opt/get_round_policy velmar.channel stable
        as "$user" sdconfig secure set velmar.channel "of $user"
    done
    ! call_of bob alice GET_SECURE s velmar.channel 2>/dev/null || return 1
    sdconfig policy install /root/60-pilot.json | grep '^alice: ~'
    wait_for channel_is alice beta
    channel_is tester stable
    channel_is bob stable
    as alice /opt/get_round_policy velmar.channel beta
    as alice sdconfig secure set velmar.channel "of alice"

    chmod 666 /etc/sdconfig/policies.d/60-pilot.json
    wait_for channel_is alice stable
    sdconfig --user alice policy status --json >/tmp/told && return 1
    grep '"ok":false.*60-pilot.json.*left_out' /tmp/told
    as alice sdconfig doctor >/tmp/told && return 1
    grep 'problem: machine policies: /etc/sdconfig/policies.d/60-pilot.json' /tmp/told
    sdconfig policy remove 60-pilot
    sdconfig policy remove 50-fleet
    for user in tester alice bob; do wait_for channel_is "$user" "of $user"; done
    expect '"ok":true' sh -c 'sdconfig --user bob policy status --json | grep -o "\"ok\":true"'
}

wait_for test -S "$runtime/bus"
try tester /home/tester/.local/share/sdconfig /home/tester/.config/systemd/user
systemctl enable -q sdconfigd.socket  # off until it is wanted
try root /var/lib/sdconfig /run/systemd/system
try_seal
try_policies
echo "packaging/units-test.sh: the units work"

#!/bin/busybox sh
# PID 1 of the test VM. Loads the simulated radios, starts the medium and the
# access points of /etc/zel-vm/aps, brings the station up, then runs each line of
# /etc/zel-vm/commands, printing "zel-vm: status CODE: COMMAND" after each, and
# powers off. The host reads the console for those lines. Lines that start with
# "cold: " run as soon as the station is up, before anything has scanned; the
# others once the kernel has heard every access point.
/bin/busybox --install -s /bin
export PATH=/bin:/sbin:/usr/bin:/usr/sbin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /run
mkdir -p /run/lock
# root for the system bus and GeoClue, nobody for the unprivileged runs
printf 'root:x:0:0:root:/:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/sh\n' > /etc/passwd
printf 'root:x:0:\nnobody:x:65534:\n' > /etc/group
mkdir -p /var/lib/dbus
echo 5a454c564d0000000000000000000001 > /etc/machine-id  # the bus wants one
cp /etc/machine-id /var/lib/dbus/machine-id
cfg=/etc/zel-vm
say() { echo "zel-vm: $*"; }
stop() { say "$*"; sync; poweroff -f; sleep 5; exit 1; }

say "booted: $(uname -r)"
while read -r module params; do
    insmod "/lib/modules/$module" $params || stop "insmod $module failed"
done < $cfg/modules
ip link set lo up

# The medium: every frame from radio N (wlanN) reaches the others with the signal
# of that radio's access point. Registered before any radio transmits.
signals=""
while read -r ifname bssid ssid channel signal; do
    signals="$signals ${ifname#wlan}=$signal"
done < $cfg/aps
zel_vm_hwsim_medium /tmp/medium.ready "$(cat $cfg/radios)" $signals &
i=0
while [ ! -e /tmp/medium.ready ]; do
    i=$((i + 1))
    [ $i -gt 100 ] && stop "the hwsim medium did not start"
    sleep 0.1
done

# Bounded wait until `iw dev IF WHAT` (info, link) mentions TEXT.
wait_for() {
    i=0
    while ! iw dev "$1" "$2" | grep -q "$3"; do
        i=$((i + 1))
        [ $i -gt 100 ] && stop "$1 never showed \"$3\""
        sleep 0.1
    done
}

# interface BSSID SSID channel signal(dBm)
while read -r ifname bssid ssid channel signal; do
    ip link set "$ifname" address "$bssid" || stop "cannot set $ifname to $bssid"
    printf 'interface=%s\ndriver=nl80211\nssid=%s\nhw_mode=g\nchannel=%s\n' \
        "$ifname" "$ssid" "$channel" > "/tmp/hostapd-$ifname.conf"
    hostapd -B -f "/tmp/hostapd-$ifname.log" "/tmp/hostapd-$ifname.conf" < /dev/null ||
        { cat "/tmp/hostapd-$ifname.log"; stop "hostapd on $ifname failed"; }
    wait_for "$ifname" info "ssid $ssid"
    say "AP $bssid \"$ssid\" on $ifname, channel $channel, heard at $signal dBm"
done < $cfg/aps

if [ -s $cfg/ibss ]; then
    read -r ifname ssid frequency < $cfg/ibss
    iw dev "$ifname" set type ibss && ip link set "$ifname" up &&
        iw dev "$ifname" ibss join "$ssid" "$frequency" fixed-freq ||
        stop "ad-hoc network on $ifname failed"
    wait_for "$ifname" link "Joined IBSS"
    say "ad-hoc \"$ssid\" on $ifname, $frequency MHz"
fi

# Runs the lines of the commands file that start with "cold: " ($1 = cold) or the others.
run_commands() {
    while read -r command; do
        case "$command" in
            "") continue ;;
            "cold: "*) [ "$1" = cold ] || continue; line=${command#cold: } ;;
            *) [ "$1" = cold ] && continue; line=$command ;;
        esac
        say "run: $command"
        sh -c "$line" < /dev/null
        say "status $?: $command"
    done < $cfg/commands
}

station=$(cat $cfg/station)
ip link set "$station" up || stop "cannot bring $station up"
run_commands cold

# Under emulation a probe response can miss the scan's 30 ms on its channel. Scan
# the access points' channels until the kernel has heard every one, so the tests
# start from a known world (the kernel keeps what it heard for 30 s). Only
# triggers here: "iw scan" itself sometimes waits forever for the scan's end.
frequencies=$(while read -r ifname bssid ssid channel signal; do
    echo $((2407 + 5 * channel)); done < $cfg/aps)
heard_all() {
    timeout 10 iw dev "$station" scan dump > /tmp/scan-dump
    while read -r ifname bssid rest; do
        grep -qi "^BSS $bssid" /tmp/scan-dump || return 1
    done < $cfg/aps
}
polls=0
until heard_all; do
    polls=$((polls + 1))
    [ $polls -gt 50 ] && stop "the station never heard every access point"
    # EBUSY while the previous set-up scan runs: nothing to do but wait.
    timeout 10 iw dev "$station" scan trigger freq $frequencies > /dev/null 2>&1
    sleep 0.3
done
say "station $station heard every access point after $polls polls"

run_commands warm
stop "done"

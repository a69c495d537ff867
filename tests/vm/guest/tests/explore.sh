syslogd -O /tmp/messages
ip link add qel0 type dummy && ip link set qel0 address 02:00:00:00:0a:01 && ip addr add 192.0.2.10/24 dev qel0 && ip link set qel0 up; echo "ip rc=$?"
ip -6 addr add 2001:db8::10/64 dev qel0
ip addr
qel-vm-probe identity
qel-vm-probe blade
qeld --once --stderr; echo "once rc=$?"
qeld --daemon --stderr; echo "daemon rc=$?"
sleep 8
ipmitool mc watchdog get 2>/dev/null
kill -TERM $(cat /var/run/qeld.pid)
sleep 3
ipmitool mc watchdog get 2>/dev/null
cat /tmp/messages

#!/usr/bin/python3
"""Tells the BlueZ mock of a simulated Bluetooth machine what happens.

usage: bluez.py ADDRESS pair-all SYSFS   adapter hci0, and every Bluetooth node
                                          of the machine added and paired
       bluez.py ADDRESS gatt DEVICE NODE [KINDS]
                                          the device at DEVICE (a Bluetooth
                                          address known to the mock) gets the
                                          vendor GATT service, backed by the
                                          devio-sim node socket NODE; KINDS is
                                          fixed (default), variable or
                                          fixed,variable
       bluez.py ADDRESS METHOD ARGS...    one method of org.bluez.Mock, e.g.
                                          ConnectDevice hci0 00:1F:20:B3:5B:01

ADDRESS is the private bus's address. Low Energy nodes (below uhid) get a
random address type and the HID-over-GATT service, as BlueZ shows them.
"""
import glob
import os
import sys

import dbus

HID_OVER_GATT = '00001812-0000-1000-8000-00805f9b34fb'


def uevent(path):
    values = {}
    with open(path, encoding='utf-8') as f:
        for line in f:
            key, _, value = line.rstrip('\n').partition('=')
            values[key] = value
    return values


def pair_all(bus, sysfs):
    mock = dbus.Interface(bus.get_object('org.bluez', '/'), 'org.bluez.Mock')
    mock.AddAdapter('hci0', 'simulated machine')
    for node in sorted(glob.glob(os.path.join(sysfs, 'class/hidraw/hidraw*'))):
        hid = os.path.realpath(os.path.join(node, 'device'))
        ev = uevent(os.path.join(hid, 'uevent'))
        if not ev.get('HID_ID', '').startswith('0005:'):
            continue
        address = ev['HID_UNIQ'].upper()
        mock.AddDevice('hci0', address, ev.get('HID_NAME', address))
        mock.PairDevice('hci0', address, 0x2540)
        low_energy = '/virtual/misc/uhid/' in hid
        if low_energy:
            path = '/org/bluez/hci0/dev_' + address.replace(':', '_')
            dbus.Interface(bus.get_object('org.bluez', path), 'org.freedesktop.DBus.Mock') \
                .UpdateProperties('org.bluez.Device1', {
                    'AddressType': 'random',
                    'UUIDs': dbus.Array([HID_OVER_GATT], signature='s')})
        print(f"{os.path.basename(node)} {address} {'ble' if low_energy else 'classic'} paired")


def gatt(bus, device, node, kinds):
    dbus.Interface(bus.get_object('org.bluez', '/'), 'org.freedesktop.DBus.Mock') \
        .AddTemplate(os.path.join(os.path.dirname(os.path.abspath(__file__)), 'gatt.py'), {})
    mock = dbus.Interface(bus.get_object('org.bluez', '/'), 'org.bluez.Mock')
    print(mock.AddGattDevice('hci0', device, node, {'characteristics': kinds}))


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    bus = dbus.bus.BusConnection(sys.argv[1])
    if sys.argv[2] == 'pair-all':
        pair_all(bus, sys.argv[3])
        return
    if sys.argv[2] == 'gatt':
        gatt(bus, sys.argv[3], sys.argv[4], sys.argv[5] if len(sys.argv) > 5 else 'fixed')
        return
    mock = dbus.Interface(bus.get_object('org.bluez', '/'), 'org.bluez.Mock')
    result = getattr(mock, sys.argv[2])(*sys.argv[3:])
    if result is not None:
        print(result)


main()

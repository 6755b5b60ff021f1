'''GATT objects for the BlueZ mock, backed by simulated firmware

Loaded beside python3-dbusmock's bluez5 template (AddTemplate with this
file's path). AddGattDevice gives a device object the maker's vendor
service: its I/O characteristics and their client configuration
descriptors, shaped as BlueZ shows them. A write to a characteristic
becomes a report on the SOCK_SEQPACKET node of a devio-sim device; each
report that node sends back becomes a value change of the characteristic,
while a notification session is on, as a peripheral's notification does.
'''

import socket

import dbus
from gi.repository import GLib

from dbusmock import OBJECT_MANAGER_IFACE, mockobject

BUS_NAME = 'org.bluez'
MAIN_OBJ = '/'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

MOCK_IFACE = 'org.bluez.Mock'
SERVICE_IFACE = 'org.bluez.GattService1'
CHAR_IFACE = 'org.bluez.GattCharacteristic1'
DESC_IFACE = 'org.bluez.GattDescriptor1'
DEVICE_IFACE = 'org.bluez.Device1'

VENDOR_SERVICE = '00010000-0000-1000-8000-011f20002e5a'
UUIDS = {'fixed': '00010000-0000-1000-8000-011f20002e5a',
         'variable': '00010001-0000-1000-8000-011f20002e5a'}
CLIENT_CONFIGURATION = '00002902-0000-1000-8000-00805f9b34fb'
BATTERY_SERVICE = '0000180f-0000-1000-8000-00805f9b34fb'
BATTERY_LEVEL = '00002a19-0000-1000-8000-00805f9b34fb'

REPORT_SIZE = 20


def load(mock, _parameters):
    mock.gatt_links = {}


def device_path(adapter, address):
    return f'/org/bluez/{adapter}/dev_' + address.upper().replace(':', '_')


class Link:
    '''The firmware behind one device's characteristics.'''

    def __init__(self, node):
        self.sock = None
        self.chars = []  # (object, kind), in attribute order
        self.writes = []  # (object, value, type) as the device received them
        if node:
            self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            self.sock.connect(node)
            GLib.io_add_watch(self.sock.fileno(), GLib.IO_IN | GLib.IO_HUP, self.on_report)

    def close(self):
        if self.sock:
            self.sock.close()
            self.sock = None

    def on_report(self, _fd, condition):
        if not self.sock or condition & GLib.IO_HUP:
            return False
        try:
            report = self.sock.recv(64)
        except OSError:
            return False
        for path, kind in self.chars:
            notify(path, value_of(report, kind))
        return True

    def forward(self, path, value, write_type):
        self.writes.append((path, bytes(value), write_type))
        kind = dict(self.chars)[path]
        if self.sock:
            self.sock.send(report_of(bytes(value), kind))


def value_of(report, kind):
    '''A report as the characteristic carries it.'''
    if kind == 'fixed':
        return report[1:]
    value = report[2:].rstrip(b'\0')
    return value or b'\0'


def report_of(value, kind):
    '''The long report that a characteristic's value stands for.'''
    body = value if kind == 'fixed' else b'\xff' + value
    return (b'\x11' + body + bytes(REPORT_SIZE))[:REPORT_SIZE]


def notify(path, value):
    obj = mockobject.objects[path]
    if not obj.props[CHAR_IFACE]['Notifying']:
        return
    value = dbus.Array([dbus.Byte(b) for b in value], signature='y')
    obj.props[CHAR_IFACE]['Value'] = value
    obj.EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
                   [CHAR_IFACE, {'Value': dbus.Array(value, signature='y', variant_level=1)}, []])


def link_of(path):
    manager = mockobject.objects['/']
    for device, link in manager.gatt_links.items():
        if path.startswith(device + '/'):
            return link
    raise dbus.exceptions.DBusException('Not connected', name='org.bluez.Error.NotConnected')


def write_value(self, value, options):
    write_type = str(options.get('type', 'request'))
    link_of(self.path).forward(self.path, value, write_type)


def start_notify(self):
    if self.props[CHAR_IFACE]['Notifying']:
        return
    self.props[CHAR_IFACE]['Notifying'] = dbus.Boolean(True)
    self.EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
                    [CHAR_IFACE, {'Notifying': dbus.Boolean(True, variant_level=1)}, []])


def stop_notify(self):
    if not self.props[CHAR_IFACE]['Notifying']:
        raise dbus.exceptions.DBusException('No notify session started',
                                            name='org.bluez.Error.Failed')
    self.props[CHAR_IFACE]['Notifying'] = dbus.Boolean(False)


def read_value(self, _options):
    return self.props[CHAR_IFACE]['Value']


def add(manager, path, interface, props, methods):
    manager.AddObject(path, interface, props, methods)
    manager.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                       [dbus.ObjectPath(path), {interface: props}])


def add_characteristic(manager, service, handle, uuid, flags, value):
    path = f'{service}/char{handle:04x}'
    add(manager, path, CHAR_IFACE, {
        'UUID': dbus.String(uuid),
        'Service': dbus.ObjectPath(service),
        'Value': dbus.Array([dbus.Byte(b) for b in value], signature='y'),
        'Notifying': dbus.Boolean(False),
        'Flags': dbus.Array(flags, signature='s'),
    }, [
        ('ReadValue', 'a{sv}', 'ay', read_value),
        ('WriteValue', 'aya{sv}', '', write_value),
        ('StartNotify', '', '', start_notify),
        ('StopNotify', '', '', stop_notify),
    ])
    return path


def add_descriptor(manager, characteristic, handle):
    add(manager, f'{characteristic}/desc{handle:04x}', DESC_IFACE, {
        'UUID': dbus.String(CLIENT_CONFIGURATION),
        'Characteristic': dbus.ObjectPath(characteristic),
        'Value': dbus.Array([dbus.Byte(0), dbus.Byte(0)], signature='y'),
    }, [])


@dbus.service.method(MOCK_IFACE, in_signature='sssa{sv}', out_signature='s')
def AddGattDevice(self, adapter, address, node, options):
    '''Gives the device at ADDRESS the vendor service.

    node: the devio-sim node (SOCK_SEQPACKET socket) behind it, or empty.
    options: characteristics (string, "fixed", "variable" or both in the
    order found, comma-separated; default "fixed"), descriptor (bool,
    default true: each I/O characteristic has its client configuration),
    pid (uint16: goes into Modalias).
    '''
    path = device_path(adapter, address)
    if path not in mockobject.objects:
        raise dbus.exceptions.DBusException(f'No such device {path}',
                                            name='org.bluez.Error.DoesNotExist')
    kinds = str(options.get('characteristics', 'fixed')).split(',')
    with_descriptor = bool(options.get('descriptor', True))
    pid = int(options.get('pid', 0))
    device = mockobject.objects[path]
    device.UpdateProperties(DEVICE_IFACE, {
        'Modalias': dbus.String(f'bluetooth:v046Dp{pid:04X}d0001'),
        'ServicesResolved': dbus.Boolean(True),
    })
    link = Link(str(node))
    self.gatt_links[path] = link

    # A standard service first: the vendor one is found among others.
    battery = f'{path}/service0008'
    add(self, battery, SERVICE_IFACE, {
        'UUID': dbus.String(BATTERY_SERVICE), 'Device': dbus.ObjectPath(path),
        'Primary': dbus.Boolean(True), 'Includes': dbus.Array([], signature='o')}, [])
    add_characteristic(self, battery, 0x0009, BATTERY_LEVEL, ['read', 'notify'], [90])

    service = f'{path}/service0010'
    add(self, service, SERVICE_IFACE, {
        'UUID': dbus.String(VENDOR_SERVICE), 'Device': dbus.ObjectPath(path),
        'Primary': dbus.Boolean(True), 'Includes': dbus.Array([], signature='o')}, [])
    handle = 0x0011
    for kind in kinds:
        char = add_characteristic(self, service, handle, UUIDS[kind],
                                  ['read', 'write', 'write-without-response', 'notify'], [])
        link.chars.append((char, kind))
        if with_descriptor:
            add_descriptor(self, char, handle + 2)
        handle += 4
    return service


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='a(oays)')
def GattWrites(self, path):
    '''What the device received through its characteristics, in order:
    (characteristic, value, write type).'''
    link = self.gatt_links.get(path)
    if link is None:
        return dbus.Array([], signature='(oays)')
    return dbus.Array([dbus.Struct((dbus.ObjectPath(c), dbus.Array(v, signature='y'), t))
                       for c, v, t in link.writes], signature='(oays)')


@dbus.service.method(MOCK_IFACE, in_signature='say', out_signature='')
def GattNotify(self, characteristic, value):
    '''A notification of the characteristic with VALUE, as the device
    would send it.'''
    notify(characteristic, bytes(value))


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='')
def RemoveGattDevice(self, adapter, address):
    '''The device's GATT objects go, as when it disconnects.'''
    path = device_path(adapter, address)
    link = self.gatt_links.pop(path, None)
    if link:
        link.close()
    for obj in sorted((p for p in mockobject.objects if p.startswith(path + '/')), reverse=True):
        interfaces = list(mockobject.objects[obj].props.keys())
        self.RemoveObject(obj)
        self.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',
                        [dbus.ObjectPath(obj), interfaces])

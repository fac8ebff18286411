import gi
gi.require_version("Orvex", "1.0")
from gi.repository import GLib, Orvex
request = Orvex.Request.new("fingerprintRequest", "fingerprint", "1.0", "application/xml")
print(Orvex.Client.new().ask(request, GLib.Bytes.new(open("fingerprint.xml", "rb").read())).get_data().decode())

// Sends a fingerprint and prints the answer: fingerprint FILE
// valac --pkg orvexclient-1.0 fingerprint.vala
int main (string[] words) {
    if (words.length != 2) {
        return 2;
    }
    try {
        var question = File.new_for_path (words[1]).load_bytes (null, null);
        var client = new Orvex.Client ();
        var request = new Orvex.Request ("fingerprintRequest", "fingerprint", "1.0", "application/xml");
        var answer = client.ask (request, question);
        stdout.write (answer.get_data ());
        return 0;
    } catch (GLib.Error error) {
        stderr.printf ("fingerprint: %s\n", error.message);
        return 1;
    }
}

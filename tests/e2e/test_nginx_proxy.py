"""Downloads through nginx arrive byte-exact, and the client address nginx forwards reaches the gateway."""
import os

import gateway_harness as h
from breaking_proxy import BreakingProxy  # noqa: E402
from test_resume import README_ONE_LINER, ResumeCase, cut_points  # noqa: E402

CLIENT_ADDRESS = "127.0.0.2"  # a loopback address of its own, so the forwarded address is telling


class NginxProxy(ResumeCase):
    FORWARDED = "$remote_addr"  # the recommended set-up: what the client sends is not passed on

    def setUp(self):
        super().setUp()
        self.proxy_port = h.start_nginx(self, "127.0.0.1:%d" % self.port, self.FORWARDED)

    def download_via_nginx(self, args, *extra):
        proxied = [arg.replace("127.0.0.1:%d" % self.port, "127.0.0.1:%d" % self.proxy_port) for arg in args]
        return self.curl("--interface", CLIENT_ADDRESS, *extra, *proxied)

    def test_both_transfer_modes_and_the_xml_form_pass_through_and_carry_the_client_address(self):
        size = len(self.recordings[(h.DEVICE, "clip-a.bin")])
        uri = "rtsp://127.0.0.1:8554/camera/%s/playback?starttime=%s&endtime=%s" % (h.CAMERA, h.START, h.END)
        for args, device, name in [
                (h.json_download_args(self.port, h.playback_uri(name="clip-a.bin", size=size)), h.DEVICE, "clip-a.bin"),
                (h.json_download_args(self.port, h.playback_uri()), h.DEVICE, "clip-a.bin"),
                (h.xml_download_args(self.port, uri), h.CAMERA, "clip-c.bin")]:
            reply = self.download_via_nginx(args)
            self.assertEqual(reply.status, 200, self.log_tail())
            self.assert_recording_body(reply.body, device, name)
        self.wait_for_status(lambda s: s.get("closed") == 3 and s.get("lastClientIP") == CLIENT_ADDRESS,
                             "all streams closed, client address forwarded")

    def test_broken_downloads_resume_through_nginx(self):
        body = self.full_body()
        self.assert_same_file(self.resumed(self.proxy_port, body[:len(body) // 2], README_ONE_LINER), body)
        breaking = BreakingProxy(self.proxy_port, cut_points(len(body)))
        self.addCleanup(breaking.close)
        output = os.path.join(self.dir, "fetched.bin")
        self.fetch(breaking.port, output)
        self.assert_same_file(output, body)
        # A validator of another version brings the whole body, also where nginx could cut ranges itself.
        reply = self.download_via_nginx(h.json_download_args(self.port, h.playback_uri(name="clip-a.bin")), "-H",
                                        "Range: bytes=100-", "-H", 'If-Range: "3004d2-0-0"')
        self.assertEqual(reply.status, 200, reply.headers)
        self.assertEqual(reply.body, body)


class ForwardedTextFromClients(h.GatewayCase):
    """Without a proxy, any loopback client writes X-Forwarded-For as it likes; "client, proxy" is also what
    nginx's common $proxy_add_x_forwarded_for set-up passes on."""

    def test_a_list_downloads_and_hostile_text_chooses_nothing(self):
        args = h.json_download_args(self.port, h.playback_uri(name="clip-a.bin"))
        reply = self.curl("-H", "X-Forwarded-For: 203.0.113.7, 127.0.0.2", *args)
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("lastClientIP") == "203.0.113.7", "the list's first address")
        self.wait_for_log('client "203.0.113.7"')

        reply = self.curl("-H", "X-Forwarded-For: a&devIndex=zzz", *args)
        self.assertEqual(reply.status, 200, self.log_tail())
        self.assert_recording_body(reply.body, h.DEVICE, "clip-a.bin")
        self.wait_for_status(lambda s: s.get("lastClientIP") == "", "no address from untrusted text")
        self.wait_for_log(r'forwarded client address "a&devIndex=zzz" is not an address; untrusted')


if __name__ == "__main__":
    h.main()

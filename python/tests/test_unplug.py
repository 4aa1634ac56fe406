"""A camera unplugged during a capture (the virtual camera goes away 2.5 s after the start)."""
import threading

import pytest

import tevix


@pytest.mark.unplug
def test_unplug_raises_device_lost_in_the_iterating_thread():
    caught, frames = [], []

    def iterate():
        try:
            with tevix.open() as cam, cam.capture(timeout=10) as stream:
                for frame in stream:
                    frames.append(frame.info.index)
        except tevix.Error as e:
            caught.append(e)

    t = threading.Thread(target=iterate)
    t.start()
    t.join(30)
    assert not t.is_alive()
    assert frames, "no frame before the unplug"
    assert len(caught) == 1 and isinstance(caught[0], tevix.DeviceLost), caught
    assert caught[0].code == -10 and "TEVIX_ERR_CAP_UNKNOWN" in caught[0].reason

#!/usr/bin/python3
"""Depth and infrared of a camera (or recording) in OpenCV windows; q quits.

    examples/opencv_view.py [URI]        (without a display: --frames N writes PNG files)
"""
import sys

import cv2
import numpy as np

import tevix

args = [a for a in sys.argv[1:] if not a.startswith("--")]
headless = "--frames" in sys.argv
count = int(sys.argv[sys.argv.index("--frames") + 1]) if headless else 0
if headless:
    args = args[:-1]

with tevix.open(args[0] if args else None) as cam, cam.capture(loop=True) as stream:
    for i, frame in enumerate(stream):
        depth = cv2.cvtColor(frame.colorized((0, 6000)), cv2.COLOR_RGB2BGR)
        ir = tevix.infrared(frame.grey())
        view = np.hstack([depth, cv2.cvtColor(ir, cv2.COLOR_GRAY2BGR)])
        cv2.putText(view, f"#{frame.info.index}  {frame.info.sensor_temperature:.1f} C", (8, 20),
                    cv2.FONT_HERSHEY_SIMPLEX, 0.5, (255, 255, 255), 1)
        if headless:
            cv2.imwrite(f"view_{i:04d}.png", view)
            if i + 1 == count:
                break
        else:
            cv2.imshow("tevix: depth | infrared", view)
            if cv2.waitKey(1) & 0xFF == ord("q"):
                break

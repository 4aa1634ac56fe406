#!/usr/bin/python3
"""A frame of a camera (or recording) as an Open3D point cloud, written as PLY and read back.

    examples/open3d_points.py [URI] [OUT.ply]
"""
import sys

import numpy as np
import open3d as o3d

import tevix

uri = sys.argv[1] if len(sys.argv) > 1 and sys.argv[1] else None
out = sys.argv[2] if len(sys.argv) > 2 else "frame.ply"

with tevix.open(uri) as cam, cam.capture() as stream:
    frame = next(stream)
    xyz = frame.points()  # (N, 3) float32 metres, invalid pixels left out
    # Colour each point by its infrared brightness.
    ir = tevix.infrared(frame.grey()).reshape(-1)
    valid = np.isfinite(frame.points(invalid="nan")[:, 2])

cloud = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(xyz.astype(np.float64)))
cloud.colors = o3d.utility.Vector3dVector(np.repeat(ir[valid, None] / 255.0, 3, axis=1))
o3d.io.write_point_cloud(out, cloud)
back = o3d.io.read_point_cloud(out)
assert len(back.points) == len(xyz)
print(f"{out}: {len(back.points)} points, bounds {back.get_min_bound()} .. {back.get_max_bound()}")

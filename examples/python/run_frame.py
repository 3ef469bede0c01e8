#!/usr/bin/python3
"""Runs the whole pipeline of libbrennik_opt_layers on a frame directory
(as written by `frcnn_demo --dump DIR`: config.json and .npy files) through
the Python module, and prints the proposal counts and the detection table
in the demo's format.

usage: run_frame.py DIR [--threads N]
"""
import argparse
import json
import os

import numpy as np

import brennik_opt_layers as ol

# config.json keys that are not frcnn_desc fields.
NOT_FIELDS = {"format", "base_anchors", "class_names", "ground_truth"}


def load_desc(config, threads):
    fields = {k: v for k, v in config.items() if k not in NOT_FIELDS}
    scale = fields.pop("bbox_scale_factor", None)
    if isinstance(scale, dict):
        scale = [scale[k] for k in ("center_x", "center_y", "width", "height")]
    if scale is not None:
        fields["bbox_scale_factor"] = scale
    if threads:
        fields["thread_num"] = threads
    return ol.FrcnnDesc(**fields)


def iou_inclusive(a, b):
    """IoU of two x1 y1 x2 y2 boxes with inclusive sizes, in float32."""
    a = np.asarray(a, np.float32)
    b = np.asarray(b, np.float32)
    one = np.float32(1)
    iw = min(a[2], b[2]) - max(a[0], b[0]) + one
    ih = min(a[3], b[3]) - max(a[1], b[1]) + one
    if not (iw > 0 and ih > 0):
        return np.float32(0)
    inter = iw * ih
    union = (a[2] - a[0] + one) * (a[3] - a[1] + one) + (b[2] - b[0] + one) * (b[3] - b[1] + one)
    return inter / (union - inter)


def match(dets, truth, threshold=np.float32(0.5)):
    """Greedy matching in descending score order, same class only: the
    ground-truth index of each detection, or -1."""
    order = sorted(range(len(dets)), key=lambda i: -dets[i][1])
    taken = [False] * len(truth)
    result = [-1] * len(dets)
    for i in order:
        cls, _, box = dets[i]
        best, best_iou = -1, threshold
        for g, t in enumerate(truth):
            if taken[g] or t["class"] != cls:
                continue
            u = iou_inclusive(box, t["box"])
            if u >= best_iou:
                best, best_iou = g, u
        if best >= 0:
            taken[best] = True
            result[i] = best
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("dir")
    parser.add_argument("--threads", type=int, default=0)
    args = parser.parse_args()

    def path(name):
        return os.path.join(args.dir, name)

    with open(path("config.json")) as f:
        config = json.load(f)
    desc = load_desc(config, args.threads)
    anchors = np.asarray(config["base_anchors"], np.float32)
    names = config.get("class_names", [])
    truth = config.get("ground_truth")

    with ol.Pipeline(desc, anchors) as p:
        rpn_cls, rpn_bbox = np.load(path("rpn_cls.npy")), np.load(path("rpn_bbox.npy"))
        proposals = p.prenms(rpn_cls, rpn_bbox)
        rois, _features = p.pre_nms_roi(rpn_cls, rpn_bbox, np.load(path("fmap.npy")))
        print(f"proposals: {len(proposals)} before NMS, {len(rois)} ROIs after NMS")
        _table, per_class = p.post_nms(np.load(path("rcnn_cls.npy")),
                                       np.load(path("rcnn_bbox.npy")), rois)

    # Class 0 is the background.
    dets = [(c, score, box) for c in range(1, len(per_class)) for box, score in per_class[c]]
    print(f"detections (probability > {desc.cls_prob:.2f}): {len(dets)}")
    matches = match(dets, truth) if truth is not None else None
    if dets:
        print("   #  %-12s %7s %8s %8s %8s %8s%s" % ("class", "score", "x1", "y1", "x2", "y2",
                                                  "  match" if truth is not None else ""))
    for i, (c, score, box) in enumerate(dets):
        name = names[c] if c < len(names) else f"class {c}"
        line = "  %2d  %-12s %7.4f %8.1f %8.1f %8.1f %8.1f" % (i + 1, name, score, *box)
        if matches is not None:
            m = matches[i]
            line += ("  object %d (IoU %.3f)" % (m + 1, iou_inclusive(box, truth[m]["box"]))
                     if m >= 0 else "  false positive")
        print(line)
    if truth is not None:
        found = sum(m >= 0 for m in matches)
        recall = np.float32(found) / np.float32(len(truth)) if truth else 1.0
        precision = np.float32(found) / np.float32(len(dets)) if dets else 1.0
        print("recall %.2f (%d of %d objects), precision %.2f (%d of %d detections) at IoU 0.5"
              % (recall, found, len(truth), precision, found, len(dets)))


if __name__ == "__main__":
    main()

"""The Python module: round trips, bad input, threads, and agreement with
torchvision.ops on inputs where the two conventions coincide."""
import gc
import threading

import numpy as np
import pytest
import torch
import torchvision.ops as tvo

import brennik_opt_layers as ol

ANCHORS = np.array([[-8, -8, 23, 23], [-24, -24, 39, 39], [-40, -20, 55, 35]], np.float32)


def small_desc(**kw):
    base = dict(thread_num=2, anchor_num=3, pre_nms_num=200, post_nms_num=40, class_num=4,
                img_h=128, img_w=192, fmap_d=32, min_size=4, pool_h=4, pool_w=4)
    return ol.FrcnnDesc(**{**base, **kw})


def frame(d, seed=1):
    """RPN tensors, feature map and second-stage outputs for desc d (the
    second stage sized for d.post_nms_num ROIs; post_nms takes the first R)."""
    r = np.random.default_rng(seed)
    h, w = d.fmap_h, d.fmap_w
    return dict(
        rpn_cls=r.random((2 * d.anchor_num, h, d.rpn_cls_pitch)).astype(np.float16),
        rpn_bbox=(r.normal(0, 0.1, (4 * d.anchor_num, h, d.fmap_pitch))).astype(np.float16),
        fmap=r.integers(0, 65536, (d.fmap_d // 16, h, w, 16), dtype=np.uint16),
        rcnn_cls=r.random((d.post_nms_num, d.rcnn_cls_pitch)).astype(np.float16),
        rcnn_bbox=r.normal(0, 0.1, (d.post_nms_num, d.rcnn_bbox_pitch)).astype(np.float16))


def run_frame(p, f):
    rois, feats = p.pre_nms_roi(f["rpn_cls"], f["rpn_bbox"], f["fmap"])
    n = len(rois)
    table, per_class = p.post_nms(f["rcnn_cls"][:n], f["rcnn_bbox"][:n], rois)
    return rois, feats, table, per_class


def n_threads():
    with open("/proc/self/status") as s:
        return int(s.read().split("Threads:")[1].split()[0])


def test_version():
    assert ol.version() == dict(major=1, minor=1, patch=2, build_date=0x20191230,
                                description="Norvantix Faster RCNN Library")


def test_pipeline_agrees_with_operators_and_on_threads_and_releases_its_workers():
    d = small_desc(thread_num=3)
    before = n_threads()
    p = ol.Pipeline(d, ANCHORS)
    assert n_threads() == before + 3
    del p  # released by the garbage collector
    gc.collect()
    assert n_threads() == before
    frames = [frame(d, seed) for seed in range(4)]
    f = frames[0]
    with ol.Pipeline(d, ANCHORS) as p:
        proposals = p.prenms(f["rpn_cls"], f["rpn_bbox"])
        assert proposals.dtype == np.float16 and 0 < len(proposals) <= d.pre_nms_num
        rois = p.prenms_nms(f["rpn_cls"], f["rpn_bbox"])
        np.testing.assert_array_equal(rois, ol.nms(proposals, d.pre_nms_iou, d.post_nms_num))
        want = [run_frame(p, f) for f in frames]
    assert p.closed
    with pytest.raises(ValueError, match="Pipeline is closed"):
        p.prenms(f["rpn_cls"], f["rpn_bbox"])
    rois2, feats, table, per_class = want[0]
    np.testing.assert_array_equal(rois2, rois)
    np.testing.assert_array_equal(feats, ol.roi_pooling(rois, f["fmap"], d.fmap_scale,
                                                        d.pool_w, d.pool_h))
    # The per-class lists are the table's records.
    c, n = d.class_num, d.post_nms_num
    assert table.shape == (c + 5 * n * c,) and len(per_class) == c
    assert sum(map(len, per_class)) > 0
    for k, dets in enumerate(per_class):
        assert table[k] == len(dets)
        recs = table[c + 5 * n * k:][:5 * len(dets)].reshape(-1, 5).astype(np.float32)
        assert [(tuple(r[:4]), r[4]) for r in recs] == dets
    got = [None] * 4

    def worker(i):  # its own handle, five frames, the GIL released in each call
        with ol.Pipeline(d, ANCHORS) as p:
            for _ in range(5):
                got[i] = run_frame(p, frames[i])

    threads = [threading.Thread(target=worker, args=(i,)) for i in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    for w, g in zip(want, got):
        for a, b in zip(w[:3], g[:3]):
            np.testing.assert_array_equal(a, b)
        assert w[3] == g[3]


@pytest.mark.parametrize("extra", [{}, dict(is_apply_bbox_scale_factor=True,
                                            bbox_scale_factor=(10, 10, 5, 5))])
def test_dump_is_what_init_prints(capfd, extra):
    d = small_desc(is_debug=True, **extra)
    text = d.dump()
    assert text.startswith("[FRCNN_DESC] ThreadN: 2, AnchorN: 3, PreNMS: 200,")
    assert capfd.readouterr().out == ""
    ol.Pipeline(d, ANCHORS).close()
    assert capfd.readouterr().out == text


def test_operator_round_trips(capfd):
    r = np.random.default_rng(5)
    m = r.integers(-3000, 3000, (6, 9, 32), dtype=np.int16)
    whole = np.array([[0, 0, 9, 6]], np.float32)
    # Crop-and-resize of the whole map at its own size reproduces it; a
    # non-contiguous copy of the map gives the same.
    np.testing.assert_array_equal(ol.crop_and_resize_fmap_int16(m, 1, 1, 0, whole, 9, 6)[0], m)
    wide = np.asfortranarray(np.array([[-9, 0, 9, 6]], np.float32))
    out = ol.crop_and_resize_fmap_int16(m[::-1][::-1], 1, 1, -1.7, wide, 3, 2)
    assert (out[0, :, 0] == -1).all() and capfd.readouterr().out.count("extr x, ") == 2 * 32
    # Each pyramid box is the single-map operator on the level it selects.
    levels = [r.integers(-3000, 3000, (512 // s, 512 // s, 16), dtype=np.int16) for s in (8, 16, 32)]
    boxes = np.array([[10, 10, 100, 90], [0, 0, 300, 300], [5, 5, 500, 480]], np.float32)
    four = ol.roi_align_four_fmap_int16(levels, [8, 16, 32], boxes, 512, 512, 3, 5)
    for k, s in enumerate((8, 16, 32)):
        np.testing.assert_array_equal(four[k], ol.roi_align_fmap_int16(levels[k], s, boxes[k:k + 1], 3, 5)[0])
    # Signed pooling: an empty bin gives -32768.
    s = ol.roi_pooling_sign(np.array([[500, 500, 600, 600]], np.float16), m[None, :, :, :16], 16, 2, 2)
    assert (s == -32768).all()
    # The scaled PS pooling with unit factors is the plain one.
    ps = r.random((9, 8, 8, 24), dtype=np.float32)
    pb = r.integers(0, 120, (5, 4)).astype(np.float32)
    pb[:, 2:] += pb[:, :2]
    plain = ol.ps_roi_pooling(ps, pb, 3, 3, 21, 0.0625, 3, out_pitch=24)
    np.testing.assert_array_equal(plain, ol.ps_roi_pooling_scale(ps, pb, 3, 3, 21, 0.0625, 3, 1, 1, 1, out_pitch=24))
    assert (plain[..., 21:] == 0).all()


# ---- agreement with torchvision.ops ----------------------------------------

def clustered_boxes(r, objects=15, per_object=40):
    """Detector-like output: boxes scattered around a few objects, float16,
    inclusive sizes."""
    centre = r.uniform([50, 50], [950, 550], (objects, 2))
    size = r.uniform(30, 250, (objects, 2))
    c = np.repeat(centre, per_object, 0) + r.normal(0, 0.08, (objects * per_object, 2)) * np.repeat(size, per_object, 0)
    s = np.repeat(size, per_object, 0) * r.uniform(0.8, 1.25, (objects * per_object, 2))
    return np.concatenate([c - s / 2, c + s / 2], 1).astype(np.float16)


@pytest.mark.parametrize("iou", [0.3, 0.5, 0.7])
def test_nms_keeps_what_torchvision_keeps(iou):
    # torchvision sizes boxes as x2 - x1; the library as x2 - x1 + 1: its
    # boxes go to torchvision as (x1, y1, x2 + 1, y2 + 1), exact in float32.
    # Both compute the IoU in float32, torchvision as inter / union >
    # threshold, the library as union * threshold < inter: they can differ
    # only for a pair whose IoU lies within a rounding step of the threshold.
    # Such a tie does not occur in these boxes, so the kept sets are equal.
    boxes = clustered_boxes(np.random.default_rng(int(iou * 10)))
    records = np.concatenate([boxes, np.zeros((len(boxes), 1), np.float16)], 1)
    kept = ol.nms(records, iou)
    tv = torch.from_numpy(boxes.astype(np.float32)) + torch.tensor([0.0, 0.0, 1.0, 1.0])
    keep = tvo.nms(tv, -torch.arange(len(boxes), dtype=torch.float32), iou).numpy()
    assert 15 <= len(keep) < len(boxes) / 2
    np.testing.assert_array_equal(kept, boxes[keep])


def agreement(ours, theirs):
    diff = np.abs(ours.astype(np.float64) - theirs)
    return float((diff == 0).mean()), float(diff.max())


def grid_boxes(r, n, cells_w, cells_h, stride, pool):
    """Integer boxes inside a cells_w x cells_h map; with `pool` their sizes
    in cells are multiples of it."""
    w = r.integers(1, cells_w // pool + 1, n) * pool if pool else r.integers(1, cells_w, n)
    h = r.integers(1, cells_h // pool + 1, n) * pool if pool else r.integers(1, cells_h, n)
    x = r.integers(0, cells_w - w + 1)
    y = r.integers(0, cells_h - h + 1)
    return np.stack([x, y, x + w - 1, y + h - 1], 1) * stride + r.integers(0, 8, (n, 4))


@pytest.mark.parametrize("pool, sized, min_share", [(7, True, 1.0), (6, True, 1.0),
                                                     (7, False, 0.9998), (6, False, 0.97)])
def test_roi_pooling_matches_roi_pool(pool, sized, min_share):
    # Integer, non-negative coordinates: (v + 8) / 16 and round(v / 16) agree.
    # Boxes whose size in cells is a multiple of the grid have whole bins and
    # agree exactly; otherwise the bin edges part (7-bit fixed point here,
    # float in torchvision; see the README).
    r = np.random.default_rng(pool)
    fmap = r.integers(0, 65536, (2, 40, 60, 16), dtype=np.uint16)
    boxes = grid_boxes(r, 300, 60, 40, 16, pool if sized else 0)
    ours = ol.roi_pooling(boxes.astype(np.float16), fmap, 16, pool, pool)
    tv_map = torch.from_numpy(fmap.transpose(0, 3, 1, 2).reshape(1, 32, 40, 60).astype(np.float32))
    rois = torch.from_numpy(np.concatenate([np.zeros((300, 1)), boxes], 1).astype(np.float32))
    theirs = tvo.roi_pool(tv_map, rois, pool, 1 / 16).numpy()
    share, worst = agreement(ours.transpose(0, 1, 4, 2, 3).reshape(theirs.shape), theirs)
    print(f"roi_pooling {pool}x{pool} sized {sized}: {share:.6f} identical, largest difference {worst:g}")
    assert share >= min_share


@pytest.mark.parametrize("pool", [7, 4])
def test_roi_align_matches_torchvision(pool):
    # aligned=False and one sample per bin; boxes at least one cell in size
    # inside the map, where torchvision neither enlarges nor clamps them.
    # Each of the four Q13 weights is truncated toward zero (up to 4/8192 of
    # the value lost) and the sum rounded to an integer: up to 2 units here.
    r = np.random.default_rng(pool)
    fmap = r.integers(-4000, 4000, (40, 60, 32), dtype=np.int16)
    lo = r.uniform(0, [57 * 16, 37 * 16], (300, 2))
    boxes = np.concatenate([lo, r.uniform(lo + 16, [59 * 16, 39 * 16])], 1).astype(np.float32)
    ours = ol.roi_align_fmap_int16(fmap, 16, boxes, pool, pool)
    tv_map = torch.from_numpy(fmap.transpose(2, 0, 1)[None].astype(np.float32))
    rois = torch.from_numpy(np.concatenate([np.zeros((300, 1), np.float32), boxes], 1))
    theirs = tvo.roi_align(tv_map, rois, pool, 1 / 16, 1, False).numpy().transpose(0, 2, 3, 1)
    share, worst = agreement(ours, np.floor(theirs + 0.5))
    print(f"roi_align {pool}x{pool}: {share:.6f} identical to torchvision rounded, largest "
          f"difference {worst:g} ({agreement(ours, theirs)[1]:.3f} from its float result)")
    assert share >= 0.7 and worst <= 2


# ---- bad input: the exception and its message, the library never called ----

H16, U16 = np.zeros((2, 4), np.float16), np.zeros((1, 4, 4, 16), np.uint16)
F32, I16 = np.zeros((2, 4), np.float32), np.zeros((4, 4, 16), np.int16)
PS = np.zeros((4, 4, 4, 2), np.float32)
BAD = [
    (lambda p, f: ol.nms(np.zeros((3, 5), np.float32), 0.5), TypeError, "in_: expected dtype float16, got float32"),
    (lambda p, f: ol.nms("boxes", 0.5), TypeError, "in_: expected dtype float16, got <U5"),
    (lambda p, f: ol.nms(np.zeros((3, 4), np.float16), 0.5), ValueError, "in_: expected shape (*, 5) (count, x1 y1 x2 y2 score), got (3, 4)"),
    (lambda p, f: ol.nms(np.zeros((32768, 5), np.float16), 0.5), ValueError, "in_ count (rows): expected 0 .. 32767, got 32768"),
    (lambda p, f: ol.nms(np.zeros((3, 5), np.float16), 0.5, max_out=-1), ValueError, "max_out: expected 0 .. 2147483647, got -1"),
    (lambda p, f: ol.roi_pooling(H16, U16.view(np.int16), 16, 7, 7), TypeError, "fmap: expected dtype uint16, got int16"),
    (lambda p, f: ol.roi_pooling_sign(H16, U16, 16, 7, 7), TypeError, "fmap: expected dtype int16, got uint16"),
    (lambda p, f: ol.roi_pooling(H16, U16[..., :8], 16, 7, 7), ValueError, "fmap: expected shape (*, *, *, 16) (fmap_d/16, fmap_h, fmap_w, 16), got (1, 4, 4, 8)"),
    (lambda p, f: ol.roi_pooling(H16[0], U16, 16, 7, 7), ValueError, "proposal: expected shape (*, 4) (roi_num, x1 y1 x2 y2), got (4,)"),
    (lambda p, f: ol.roi_pooling(H16, U16, 0, 7, 7), ValueError, "fmap_scale: expected 1 .. 2147483647, got 0"),
    (lambda p, f: ol.roi_pooling(H16, np.zeros((1, 1, 32768, 16), np.uint16), 16, 7, 7), ValueError, "fmap_w (fmap.shape[2]): expected 0 .. 32767, got 32768"),
    (lambda p, f: ol.roi_align_fmap_int16(I16[..., :8], 16, F32, 7, 7), ValueError, "fmap: channel (shape[2]) must be a non-zero multiple of 16, got 8"),
    (lambda p, f: ol.roi_align_fmap_int16(I16, 16, H16, 7, 7), TypeError, "proposal: expected dtype float32, got float16"),
    (lambda p, f: ol.roi_align_fmap_int16(I16, 16, F32, 0, 7), ValueError, "pool_w: expected 1 .. 4294967295, got 0"),
    (lambda p, f: ol.roi_align_four_fmap_int16([I16] * 2, [16] * 3, F32, 64, 64, 7, 7), ValueError, "fmap: expected 3 maps (pyramid levels 0, 1, 2), got 2"),
    (lambda p, f: ol.roi_align_four_fmap_int16([I16] * 3, [16, 32, 64], F32, 64, 64, 7, 7), ValueError, "fmap[1]: expected shape (2, 2, 16) (fmap_h, fmap_w, channel), got (4, 4, 16)"),
    (lambda p, f: ol.crop_and_resize_fmap_int16(I16, 1, 1, 0, F32, 3, 0), ValueError, "crop_h: expected 1 .. 4294967295, got 0"),
    (lambda p, f: ol.ps_roi_pooling(PS, F32, 2, 3, 2, 0.0625, 2), ValueError, "pooled_w, pooled_h: expected both equal to group_size (2), got 2, 3"),
    (lambda p, f: ol.ps_roi_pooling(PS, F32, 2, 2, 2, 0.0625, 2, channels=9), ValueError, "channels: expected group_size^2 * out_channels = 8, got 9"),
    (lambda p, f: ol.ps_roi_pooling(PS, F32, 2, 2, 3, 0.0625, 2), ValueError, "fmap_pitch (fmap.shape[3]): expected 3 .. 2147483647, got 2"),
    (lambda p, f: ol.ps_roi_pooling_scale(PS[:3], F32, 2, 2, 2, 0.0625, 2, 1, 1, 1), ValueError, "fmap: expected shape (4, *, *, *) (group_size^2, fmap_h, fmap_w, fmap_pitch), got (3, 4, 4, 2)"),
    (lambda p, f: ol.FrcnnDesc(bogus=1), TypeError, "FrcnnDesc: unknown field 'bogus'"),
    (lambda p, f: ol.FrcnnDesc(thread_num=256), ValueError, "thread_num: expected 0 .. 255, got 256"),
    (lambda p, f: ol.FrcnnDesc(anchor_num=1.5), TypeError, "anchor_num: expected an int, got float"),
    (lambda p, f: ol.FrcnnDesc(img_w=40000).dump(), ValueError, "FrcnnDesc: img_w must be at most 32767, got 40000"),
    (lambda p, f: ol.Pipeline(small_desc(fmap_d=40), ANCHORS), ValueError, "FrcnnDesc: fmap_d must be a multiple of 16, got 40"),
    (lambda p, f: ol.Pipeline(small_desc(rcnn_cls_pitch=3), ANCHORS), ValueError, "FrcnnDesc: rcnn_cls_pitch must be at least class_num (4), got 3"),
    (lambda p, f: ol.Pipeline(small_desc(post_nms_num=40000), ANCHORS), ValueError, "FrcnnDesc: post_nms_num must be at most 32767, got 40000"),
    (lambda p, f: ol.Pipeline(small_desc(), ANCHORS[:2]), ValueError, "base_anchors: expected shape (3, 4) (anchor_num, x1 y1 x2 y2), got (2, 4)"),
    (lambda p, f: p.prenms(f["rpn_cls"][:, :, :-1], f["rpn_bbox"]), ValueError, "rpn_cls: expected shape (6, 8, 12) (score planes, fmap_h, rpn_cls_pitch), got (6, 8, 11)"),
    (lambda p, f: p.prenms_nms(f["rpn_cls"], f["rpn_bbox"].astype(np.float32)), TypeError, "rpn_bbox: expected dtype float16, got float32"),
    (lambda p, f: p.pre_nms_roi(f["rpn_cls"], f["rpn_bbox"], f["fmap"][:1]), ValueError, "fmap: expected shape (2, 8, 12, 16) (fmap_d/16, fmap_h, fmap_w, 16), got (1, 8, 12, 16)"),
    (lambda p, f: p.post_nms(f["rcnn_cls"][:5], f["rcnn_bbox"][:5], H16), ValueError, "rcnn_cls: expected shape (2, 4) (roi_num, rcnn_cls_pitch), got (5, 4)"),
    (lambda p, f: p.post_nms(f["rcnn_cls"], f["rcnn_bbox"], np.zeros((41, 4), np.float16)), ValueError, "roi_num (rois.shape[0]): expected 0 .. 40, got 41"),
]


# Failures inside the library: the exception, and what the library printed.
LIBRARY = [
    (lambda p, f: ol.Pipeline(small_desc(thread_num=0), ANCHORS), RuntimeError, "opt_layers_instance_frcnn_init failed",
     "thread number 0 less than 1\ncreate thread pool err\n"),
    (lambda p, f: ol.Pipeline(small_desc(bbox_type=2), ANCHORS).prenms_nms(f["rpn_cls"], f["rpn_bbox"]), RuntimeError,
     "opt_layers_instance_frcnn_prenms_nms failed (returned -1)", "Unsupport bbox type: 2\nfrcnn prenms err\n"),
]


@pytest.fixture(scope="module")
def small():
    d = small_desc()
    with ol.Pipeline(d, ANCHORS) as p:
        yield p, frame(d)


@pytest.mark.parametrize("call, error, message, printed", [b + ("",) for b in BAD] + LIBRARY)
def test_bad_input_is_refused(small, capfd, call, error, message, printed):
    with pytest.raises(error) as e:
        call(*small)
    assert str(e.value) == message
    assert capfd.readouterr().out == printed
